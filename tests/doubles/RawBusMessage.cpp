#include "tests/doubles/RawBusMessage.h"

namespace quillsift {

namespace {

void pad(std::string* bytes, std::size_t alignment) {
  while (bytes->size() % alignment != 0)
    bytes->push_back('\0');
}

std::size_t alignmentOf(char type) {
  switch (type) {
    case 'x':
    case 't':
    case 'd':
    case '(':
    case '{':
      return 8;
    case 'y':
    case 'g':
    case 'v':
      return 1;
    case 'n':
    case 'q':
      return 2;
    default:
      return 4;
  }
}

void addField(std::string* fields, char code, char type, const std::string& value) {
  pad(fields, 8);
  *fields += code;
  *fields += rawSignature(std::string(1, type));
  pad(fields, alignmentOf(type));
  *fields += value;
}

}  // namespace

std::string RawBusMessage::bytes() const {
  std::string fields;
  if (!path.empty()) addField(&fields, 1, 'o', rawText(path));
  if (!interface.empty()) addField(&fields, 2, 's', rawText(interface));
  if (!member.empty()) addField(&fields, 3, 's', rawText(member));
  if (!errorName.empty()) addField(&fields, 4, 's', rawText(errorName));
  if (answered) addField(&fields, 5, 'u', rawNumber(*answered, 4));
  if (!signature.empty()) addField(&fields, 8, 'g', rawSignature(signature));
  if (descriptors != 0) addField(&fields, 9, 'u', rawNumber(descriptors, 4));
  const char flags = kind == call ? '\0' : '\1';  // whether no answer is expected
  std::string bytes = {'l', static_cast<char>(kind), flags, '\1'};
  bytes += rawNumber(claimedLength.value_or(static_cast<std::uint32_t>(body.size())), 4);
  bytes += rawNumber(serial, 4) + rawNumber(fields.size(), 4) + fields;
  pad(&bytes, 8);
  return bytes + body;
}

std::string rawNumber(std::uint64_t value, std::size_t bytes) {
  std::string result;
  for (std::size_t i = 0; i < bytes; ++i)
    result += static_cast<char>(value >> (8 * i) & 0xFF);
  return result;
}

std::string rawText(std::string_view text) {
  return rawNumber(text.size(), 4) + std::string(text) + '\0';
}

std::string rawSignature(std::string_view signature) {
  return static_cast<char>(signature.size()) + std::string(signature) + '\0';
}

std::string rawDictionary(const std::vector<RawEntry>& entries) {
  std::string bytes;
  for (const RawEntry& entry : entries) {
    pad(&bytes, 8);
    bytes += rawText(entry.key) + rawSignature(entry.type);
    pad(&bytes, alignmentOf(entry.type.front()));
    bytes += entry.value;
  }
  // The length, then up to where the entries begin.
  return rawNumber(bytes.size(), 4) + rawNumber(0, 4) + bytes;
}

}  // namespace quillsift
