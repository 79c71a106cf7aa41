#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "platform/Displays.h"
#include "platform/QSData.h"

namespace quillsift::testing {

// A PNG as a foreign reader sees it.
struct DecodedPicture {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::vector<std::uint8_t> rgb;

  // 0xRRGGBB.
  std::uint32_t at(std::size_t x, std::size_t y) const {
    const std::uint8_t* const pixel = &rgb.at((y * width + x) * 3);
    return std::uint32_t{pixel[0]} << 16 | std::uint32_t{pixel[1]} << 8 | pixel[2];
  }
};

// None for what is not a whole PNG.
std::optional<DecodedPicture> decodePNG(const QSData& png);
// None for no image, too.
std::optional<DecodedPicture> decode(const std::unique_ptr<ScreenImage>& image);

}  // namespace quillsift::testing
