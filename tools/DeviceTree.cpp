#include "tools/DeviceTree.h"

#include <cstdint>
#include <cstdio>

#include "tools/Files.h"
#include "tools/FirmwareVariables.h"
#include "tools/SecretMask.h"

namespace quillsift::tools {

namespace {

constexpr std::size_t kLongestProperty = 4096;

bool isPrintable(std::string_view text) {
  for (const char character : text) {
    if (character < 32 || character > 126) return false;
  }
  return true;
}

// One or more strings, none of them empty, each with its final zero.
bool isStringList(std::string_view bytes) {
  if (!bytes.ends_with('\0')) return false;
  while (!bytes.empty()) {
    const std::size_t end = bytes.find('\0');
    if (end == 0 || !isPrintable(bytes.substr(0, end))) return false;
    bytes.remove_prefix(end + 1);
  }
  return true;
}

std::string quoted(std::string_view text) {
  std::string result = "\"";
  for (const char character : text) {
    if (character == '"' || character == '\\') result += '\\';
    result += character;
  }
  return result + "\"";
}

std::string hex(std::uint32_t number, const char* format) {
  char digits[16];
  std::snprintf(digits, sizeof digits, format, number);
  return digits;
}

std::string bytesOf(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) {
    if (!text.empty()) text += ' ';
    text += hex(static_cast<unsigned char>(byte), "%02x");
  }
  return "[" + text + "]";
}

std::string cellsOf(std::string_view bytes) {
  std::string text;
  for (std::size_t at = 0; at < bytes.size(); at += 4) {
    std::uint32_t cell = 0;
    for (const char byte : bytes.substr(at, 4))
      cell = cell << 8 | static_cast<unsigned char>(byte);
    if (!text.empty()) text += ' ';
    text += hex(cell, "0x%x");
  }
  return "<" + text + ">";
}

void printProperty(const std::string& path, const std::string& name, const std::string& indent,
                   Output& output) {
  if (name.ends_with("-seed")) return;
  const auto value = readFile(path, kLongestProperty);
  if (!value) return;
  std::string line = indent + name;
  if (!value->empty()) line += " = " + deviceTreeValue(*value);
  output.line(line + ";");
}

void printNode(const std::string& directory, const std::string& name, std::size_t depth,
               Output& output) {
  const std::string indent(4 * depth, ' ');
  output.line(indent + name + " {");
  std::vector<std::string> nodes;
  for (const std::string& entry : namesIn(directory).value_or(Names{})) {
    const std::string path = pathIn(directory, entry);
    if (isDirectory(path)) {
      nodes.push_back(entry);
    } else if (entry != "name") {  // says again what the node is called
      printProperty(path, entry, indent + "    ", output);
    }
  }
  for (const std::string& node : nodes) {
    printNode(pathIn(directory, node), node, depth + 1, output);
  }
  output.line(indent + "};");
}

}  // namespace

std::string deviceTreeValue(std::string_view bytes) {
  if (isStringList(bytes)) {
    std::string text;
    while (!bytes.empty()) {
      const std::size_t end = bytes.find('\0');
      if (!text.empty()) text += ", ";
      text += quoted(withSecretsMasked(bytes.substr(0, end)));
      bytes.remove_prefix(end + 1);
    }
    return text;
  }
  return bytes.size() % 4 == 0 ? cellsOf(bytes) : bytesOf(bytes);
}

void printDeviceTree(const std::string& directory, Output& output) {
  printNode(directory, "/", 0, output);
}

void printFirmwareOptions(const Host& host, Output& output) {
  const auto variables = firmwareVariables(host);
  if (!variables || variables->empty()) return;
  output.line("\noptions {");
  for (const FirmwareVariable& variable : *variables) {
    std::string line = "    " + variable.vendor + ":" + variable.name + " = ";
    if (variable.value.size() <= kLongestProperty) {
      line += percentEscaped(variable.value);
    } else {
      line += "(" + std::to_string(variable.value.size()) + " bytes)";
    }
    output.line(line);
  }
  output.line("};");
}

}  // namespace quillsift::tools
