#include "platform/linux/PlainText.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace quillsift {

namespace {

constexpr std::uint64_t kEveryByte = 0x0101010101010101;

// Whether all eight bytes are ASCII from the blank to the tilde.
bool arePrintable(const char* bytes) {
  std::uint64_t word = 0;
  std::memcpy(&word, bytes, sizeof word);
  const std::uint64_t notASCII = word & (0x80 * kEveryByte);
  // For ASCII bytes no carry leaves its byte: below the blank, or the delete character, sets bit 7.
  const std::uint64_t tooLow = ~(word + 0x60 * kEveryByte) & (0x80 * kEveryByte);
  const std::uint64_t tooHigh = (word + 0x01 * kEveryByte) & (0x80 * kEveryByte);
  return (notASCII | tooLow | tooHigh) == 0;
}

// Bytes of the character that begins the text, not empty, when it can stand on a line; else 0.
std::size_t plainCharacter(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byte(0);
  if (first < 0x80) return (first >= 0x20 && first != 0x7F) || first == '\t' ? 1 : 0;
  const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || text.size() < length) return 0;
  std::uint32_t character = first & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
    character = character << 6 | (byte(i) & 0x3FU);
  }
  constexpr std::uint32_t kSmallest[] = {0xA0, 0x800, 0x10000};  // 0x80 to 0x9F are controls
  if (character < kSmallest[length - 2] || character > 0x10FFFF) return 0;
  const bool surrogate = character >= 0xD800 && character < 0xE000;
  const bool never = (character >= 0xFDD0 && character <= 0xFDEF) || (character & 0xFFFE) == 0xFFFE;
  return surrogate || never ? 0 : length;
}

}  // namespace

bool isPlainText(std::string_view value) {
  while (!value.empty()) {
    if (value.size() >= 8 && arePrintable(value.data())) {
      value.remove_prefix(8);
      continue;
    }
    const std::size_t length = plainCharacter(value);
    if (length == 0) return false;
    value.remove_prefix(length);
  }
  return true;
}

}  // namespace quillsift
