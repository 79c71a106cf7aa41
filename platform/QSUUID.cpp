#include "platform/QSUUID.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace quillsift {

QSUUID::QSUUID(const std::array<std::uint8_t, 16>& bytes) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  text_.reserve(36);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text_ += '-';
    text_ += kDigits[bytes[i] >> 4];
    text_ += kDigits[bytes[i] & 0x0F];
  }
}

QSUUID QSUUID::random() {
  std::array<std::uint8_t, 16> bytes{};
  if (::getentropy(bytes.data(), bytes.size()) != 0) {
    // Only a kernel without a random source gets here: nothing sensible could be done with an
    // identifier that is not unique.
    std::fputs("quillsift: the kernel gives no random numbers\n", stderr);
    std::abort();
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // the RFC 4122 variant
  return QSUUID(bytes);
}

}  // namespace quillsift
