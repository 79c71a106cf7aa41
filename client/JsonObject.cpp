#include "client/JsonObject.h"

#include <charconv>
#include <cmath>

#include "platform/Text.h"

namespace quillsift {

namespace {

std::string escaped(char c) {
  switch (c) {
    case '"':
      return "\\\"";
    case '\\':
      return "\\\\";
    case '\b':
      return "\\b";
    case '\f':
      return "\\f";
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    default:
      break;
  }
  const auto code = static_cast<unsigned char>(c);
  // DEL is legal in JSON; a terminal that shows the line had rather not get it.
  if (code < 0x20 || code == 0x7F) return formatted("\\u%04x", code);
  return std::string(1, c);
}

std::string quoted(std::string_view text) {
  std::string result = "\"";
  for (const char c : validUTF8(text))
    result += escaped(c);
  return result + "\"";
}

}  // namespace

JsonObject& JsonObject::add(std::string_view key, std::string_view value) {
  return addRaw(key, quoted(value));
}

JsonObject& JsonObject::add(std::string_view key, double value) {
  if (!std::isfinite(value)) return addRaw(key, "null");
  char text[64];
  // The shortest text that reads back as the same number, in every locale. Dates without exponent.
  const bool plain = std::fabs(value) < 1e15;
  const auto format = plain ? std::chars_format::fixed : std::chars_format::scientific;
  const auto end = std::to_chars(text, text + sizeof text, value, format).ptr;
  return addRaw(key, std::string_view(text, static_cast<std::size_t>(end - text)));
}

JsonObject& JsonObject::add(std::string_view key, const std::vector<JsonObject>& values) {
  std::string list = "[";
  for (const JsonObject& value : values) {
    if (list.size() > 1) list += ",";
    list += value.text();
  }
  return addRaw(key, list + "]");
}

JsonObject& JsonObject::append(const JsonObject& other) {
  if (!members_.empty() && !other.members_.empty()) members_ += ",";
  members_ += other.members_;
  return *this;
}

JsonObject& JsonObject::addRaw(std::string_view key, std::string_view value) {
  if (!members_.empty()) members_ += ",";
  members_ += quoted(key) + ":";
  members_ += value;
  return *this;
}

}  // namespace quillsift
