#include "tools/DeviceWriters.h"

#include "tools/Files.h"

namespace quillsift::tools {

namespace {

void setText(PropertyListWriter& list, std::string_view key, std::string_view text) {
  if (text.empty()) return;
  list.key(key);
  list.text(text);
}

}  // namespace

std::vector<std::string> printableLines(std::string_view bytes) {
  if (isTextForXML(bytes)) {
    const auto lines = linesOf(bytes);
    return {lines.begin(), lines.end()};
  }
  constexpr char kDigits[] = "0123456789abcdef";
  std::string digits = "hex ";
  for (const char character : bytes) {
    const auto byte = static_cast<unsigned char>(character);
    digits += kDigits[byte >> 4];
    digits += kDigits[byte & 0xF];
  }
  return {digits};
}

void DeviceTextWriter::beginDevice(const Device& device) {
  const std::string indent(2 * depth_, ' ');
  std::string head = indent + device.name;
  if (!device.subsystem.empty()) head += "  [" + device.subsystem + "]";
  if (!device.driver.empty()) head += "  driver " + device.driver;
  output_.line(head);
  const std::string attributeIndent = indent + "    ";
  for (const DeviceAttribute& attribute : device.attributes) {
    const auto lines = printableLines(attribute.value);
    if (lines.size() <= 1) {
      const std::string_view value = lines.empty() ? std::string_view() : lines.front();
      output_.lineOf({attributeIndent, attribute.name, " = ", value});
      continue;
    }
    output_.lineOf({attributeIndent, attribute.name, ":"});
    for (const std::string& line : lines)
      output_.lineOf({attributeIndent, "  | ", line});
  }
  ++depth_;
}

void DevicePropertyListWriter::beginDevice(const Device& device) {
  if (!hasChildren_.empty() && !hasChildren_.back()) {
    hasChildren_.back() = true;
    list_.key("children");
    list_.beginArray();
  }
  hasChildren_.push_back(false);
  list_.beginDictionary();
  setText(list_, "name", device.name);
  setText(list_, "subsystem", device.subsystem);
  setText(list_, "driver", device.driver);
  if (device.attributes.empty()) return;
  list_.key("attributes");
  list_.beginDictionary();
  for (const DeviceAttribute& attribute : device.attributes) {
    list_.key(attribute.name);
    list_.text(attribute.value);
  }
  list_.endDictionary();
}

void DevicePropertyListWriter::endDevice() {
  if (hasChildren_.back()) list_.endArray();
  hasChildren_.pop_back();
  list_.endDictionary();
}

}  // namespace quillsift::tools
