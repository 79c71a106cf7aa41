#pragma once

#include <cstddef>
#include <cstdint>

namespace quillsift {

// The number that these bytes, eight at most, are with the lowest first; 0 for none.
template <typename Bytes>
constexpr std::uint64_t littleEndianNumber(const Bytes& bytes) {
  std::uint64_t number = 0;
  for (std::size_t i = bytes.size(); i > 0; --i)
    number = number << 8 | static_cast<std::uint8_t>(bytes[i - 1]);
  return number;
}

}  // namespace quillsift
