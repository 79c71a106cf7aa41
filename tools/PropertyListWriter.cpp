#include "tools/PropertyListWriter.h"

namespace quillsift::tools {

namespace {

std::string escaped(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (const char character : text) {
    switch (character) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      default:
        result += character;
    }
  }
  return result;
}

// How many bytes the UTF-8 sequence at the beginning of `bytes` has, 0 if there is no valid one
// that XML allows.
std::size_t sequenceLength(std::string_view bytes) {
  const auto at = [&](std::size_t index) { return static_cast<unsigned char>(bytes[index]); };
  const unsigned char first = at(0);
  if (first < 0x80) return first >= 0x20 || first == '\t' || first == '\n' ? 1 : 0;
  const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || bytes.size() < length) return 0;
  std::uint32_t point = first & (0x7FU >> length);
  for (std::size_t index = 1; index < length; ++index) {
    if ((at(index) & 0xC0) != 0x80) return 0;
    point = (point << 6) | (at(index) & 0x3F);
  }
  const bool overlong = (length == 3 && point < 0x800) || (length == 4 && point < 0x10000);
  const bool surrogate = point >= 0xD800 && point <= 0xDFFF;
  const bool excluded = point == 0xFFFE || point == 0xFFFF || point > 0x10FFFF;
  return overlong || surrogate || excluded ? 0 : length;
}

}  // namespace

bool isTextForXML(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t length = sequenceLength(bytes);
    if (length == 0) return false;
    bytes.remove_prefix(length);
  }
  return true;
}

std::string base64(std::string_view bytes) {
  constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    const std::string_view group = bytes.substr(at, 3);
    std::uint32_t bits = 0;
    for (std::size_t index = 0; index < 3; ++index) {
      bits <<= 8;
      if (index < group.size()) bits |= static_cast<unsigned char>(group[index]);
    }
    for (std::size_t digit = 0; digit < 4; ++digit) {
      text += digit <= group.size() ? kDigits[(bits >> (18 - 6 * digit)) & 0x3F] : '=';
    }
  }
  return text;
}

PropertyListWriter::PropertyListWriter(Output& output) : output_(output) {
  output_.line("<?xml version=\"1.0\" encoding=\"UTF-8\"?>");
  output_.line("<plist version=\"1.0\">");
}

void PropertyListWriter::finish() {
  output_.line("</plist>");
}

void PropertyListWriter::beginDictionary() {
  begin("dict");
}
void PropertyListWriter::endDictionary() {
  end();
}
void PropertyListWriter::beginArray() {
  begin("array");
}
void PropertyListWriter::endArray() {
  end();
}

void PropertyListWriter::key(std::string_view name) {
  // A key cannot be data: what XML cannot hold becomes a question mark.
  std::string text;
  while (!name.empty()) {
    const std::size_t length = sequenceLength(name);
    text += length == 0 ? std::string_view("?") : name.substr(0, length);
    name.remove_prefix(length == 0 ? 1 : length);
  }
  value("key", escaped(text));
}

void PropertyListWriter::text(std::string_view bytes) {
  if (isTextForXML(bytes)) {
    value("string", escaped(bytes));
  } else {
    data(bytes);
  }
}

void PropertyListWriter::data(std::string_view bytes) {
  value("data", base64(bytes));
}

void PropertyListWriter::integer(std::int64_t number) {
  value("integer", std::to_string(number));
}

void PropertyListWriter::boolean(bool truth) {
  indent();
  output_.line(truth ? "<true/>" : "<false/>");
}

void PropertyListWriter::part(std::string_view elements) {
  output_.write(elements);
}

void PropertyListWriter::begin(std::string_view element) {
  indent();
  output_.write("<");
  output_.write(element);
  output_.write(">\n");
  open_.push_back(element);
}

void PropertyListWriter::end() {
  const std::string_view element = open_.back();
  open_.pop_back();
  indent();
  output_.write("</");
  output_.write(element);
  output_.write(">\n");
}

void PropertyListWriter::value(std::string_view element, std::string_view escapedText) {
  indent();
  output_.write("<");
  output_.write(element);
  output_.write(">");
  output_.write(escapedText);
  output_.write("</");
  output_.write(element);
  output_.write(">\n");
}

void PropertyListWriter::indent() {
  for (std::size_t level = 0; level < level_ + open_.size(); ++level)
    output_.write("\t");
}

}  // namespace quillsift::tools
