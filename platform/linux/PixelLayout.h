#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace quillsift {

// How a pixel is stored: as a word of 1 to 4 bytes, and which bits of it are the colours.
struct PixelLayout {
  unsigned bytesPerPixel = 4;
  bool bigEndian = false;
  std::uint32_t redMask = 0;
  std::uint32_t greenMask = 0;
  std::uint32_t blueMask = 0;

  bool operator==(const PixelLayout&) const = default;
};

// Turns stored pixels into red, green and blue of 8 bits each. Immutable; any thread.
class PixelReader {
 public:
  // None for a layout that cannot be: a colour without bits, with bits apart, with more than 16 of
  // them or outside the word.
  static std::optional<PixelReader> make(const PixelLayout& layout);

  // Reads `count` pixels at `stored` and writes three bytes for each to `rgb`.
  void read(const std::byte* stored, std::size_t count, std::uint8_t* rgb) const;

 private:
  struct Channel {
    std::uint32_t mask = 0;
    int shift = 0;
    std::vector<std::uint8_t> values;  // of 8 bits, by the value of the channel's own bits

    bool isWholeByte() const { return values.size() == 256 && shift % 8 == 0; }
    std::uint8_t of(std::uint32_t word) const { return values[(word & mask) >> shift]; }
  };

  static std::optional<Channel> makeChannel(std::uint32_t mask, unsigned bytesPerPixel);

  // Each colour a byte of its own: the usual case, several times faster without words.
  bool isWholeBytes() const;
  template <unsigned kBytes>
  void readBytes(const std::byte* stored, std::size_t count, std::uint8_t* rgb) const;
  template <unsigned kBytes, bool kBigEndian>
  void readWords(const std::byte* stored, std::size_t count, std::uint8_t* rgb) const;

  PixelLayout layout_;
  std::array<Channel, 3> channels_;
};

}  // namespace quillsift
