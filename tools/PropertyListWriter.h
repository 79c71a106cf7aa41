#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/Output.h"

namespace quillsift::tools {

// Writes one XML property list as it is told, without holding it. The calls must nest: within a
// dictionary each value, or begin of one, follows its key().
class PropertyListWriter {
 public:
  // Writes the header and the root. Not owned; outlives the writer.
  explicit PropertyListWriter(Output& output);
  // Writes a part only, without header and root, for the list of another writer in which `level`
  // elements are open.
  PropertyListWriter(Output& output, std::size_t level) : output_(output), level_(level) {}
  // Ends the root, once everything begun has been ended. Not for a part.
  void finish();

  void beginDictionary();
  void endDictionary();
  void beginArray();
  void endArray();
  void key(std::string_view name);

  // A string where the bytes are text that XML can hold, else data.
  void text(std::string_view bytes);
  void data(std::string_view bytes);
  void integer(std::int64_t value);
  void boolean(bool value);
  // What a writer of a part has written.
  void part(std::string_view elements);

 private:
  void begin(std::string_view element);
  void end();
  void value(std::string_view element, std::string_view escapedText);
  void indent();

  Output& output_;
  const std::size_t level_ = 0;
  std::vector<std::string_view> open_;  // the elements begun, outermost first
};

// Whether XML can hold the bytes as they are: valid UTF-8 without control characters, but for tab
// and newline (a carriage return would come back as a newline).
bool isTextForXML(std::string_view bytes);

std::string base64(std::string_view bytes);

}  // namespace quillsift::tools
