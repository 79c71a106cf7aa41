#include "platform/linux/ConsoleImage.h"

#include <algorithm>
#include <array>
#include <utility>

#include "platform/linux/ConsoleFont.h"
#include "platform/linux/PNGEncoder.h"

namespace quillsift {

namespace {

using Colour = std::array<std::uint8_t, 3>;

// What the kernel's console starts with. Bit 0 of a number is blue, bit 1 green, bit 2 red.
constexpr Colour kColours[16] = {
    {0x00, 0x00, 0x00}, {0x00, 0x00, 0xAA}, {0x00, 0xAA, 0x00}, {0x00, 0xAA, 0xAA},
    {0xAA, 0x00, 0x00}, {0xAA, 0x00, 0xAA}, {0xAA, 0x55, 0x00}, {0xAA, 0xAA, 0xAA},
    {0x55, 0x55, 0x55}, {0x55, 0x55, 0xFF}, {0x55, 0xFF, 0x55}, {0x55, 0xFF, 0xFF},
    {0xFF, 0x55, 0x55}, {0xFF, 0x55, 0xFF}, {0xFF, 0xFF, 0x55}, {0xFF, 0xFF, 0xFF}};

}  // namespace

ConsoleImage::ConsoleImage(ConsoleScreen screen) : screen_(std::move(screen)) {}

std::size_t ConsoleImage::width() const {
  return screen_.columns * ConsoleFont::kWidth * kScale;
}

std::size_t ConsoleImage::height() const {
  return screen_.lines() * ConsoleFont::kHeight * kScale;
}

void ConsoleImage::drawRow(std::size_t row, std::uint8_t* rgb) const {
  const std::size_t dotRow = row / kScale;
  const auto* const line = screen_.cells.data() + dotRow / ConsoleFont::kHeight * screen_.columns;
  for (std::size_t column = 0; column < screen_.columns; ++column) {
    const ConsoleScreen::Cell& cell = line[column];
    const std::uint8_t dots = ConsoleFont::row(cell.character, dotRow % ConsoleFont::kHeight);
    for (std::size_t x = 0; x < ConsoleFont::kWidth * kScale; ++x) {
      const bool isLit = (dots >> (ConsoleFont::kWidth - 1 - x / kScale) & 1U) != 0;
      rgb =
          std::ranges::copy(kColours[(isLit ? cell.foreground : cell.background) & 0xFU], rgb).out;
    }
  }
}

std::optional<QSData> ConsoleImage::encodeAsPNG() {
  return encodePNG(static_cast<std::uint32_t>(width()), static_cast<std::uint32_t>(height()),
                   [this](std::uint32_t row, std::uint8_t* rgb) {
                     drawRow(row, rgb);
                     return true;
                   });
}

}  // namespace quillsift
