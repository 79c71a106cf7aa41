#include "platform/linux/ConsoleScreen.h"

#include <cstring>

namespace quillsift {

namespace {

constexpr std::size_t kHeaderLength = 4;
constexpr std::size_t kMostSaid = 255;  // a bigger console says this number

// The header has room for 255; of a wider console it is the number of cells that tells the width.
std::size_t columnsOf(std::size_t lines, std::size_t columns, std::size_t cells) {
  if (lines == 0 || columns == 0) return 0;
  if (columns == kMostSaid && lines < kMostSaid) columns = cells / lines;
  if (cells % columns != 0) return 0;
  const bool fits = lines == kMostSaid ? cells / columns >= lines : cells == lines * columns;
  return fits ? columns : 0;
}

template <typename Word>
Word wordAt(std::span<const std::byte> bytes, std::size_t index) {
  Word word;
  std::memcpy(&word, bytes.data() + index * sizeof(Word), sizeof(Word));
  return word;
}

// The ninth glyph bit takes the place of a colour bit and moves the others up.
ConsoleScreen::Cell cellOf(std::uint16_t word, std::uint16_t highGlyphBit) {
  const bool isMoved = highGlyphBit != 0;
  const auto colours = static_cast<unsigned>(word) >> (isMoved ? 9 : 8);
  const bool isHighGlyph = (word & highGlyphBit) != 0;
  return {.character = isHighGlyph ? U'\uFFFD' : static_cast<char32_t>(word & 0xFFU),
          .foreground = static_cast<std::uint8_t>(colours & 0xFU),
          .background = static_cast<std::uint8_t>(colours >> 4 & 0x7U)};
}

}  // namespace

std::optional<ConsoleScreen> parseConsoleScreen(std::span<const std::byte> attributed,
                                                std::span<const std::byte> characters,
                                                std::uint16_t highGlyphBit) {
  if (attributed.size() < kHeaderLength) return std::nullopt;
  const auto words = attributed.subspan(kHeaderLength);
  const std::size_t count = words.size() / sizeof(std::uint16_t);
  ConsoleScreen screen;
  screen.columns = columnsOf(std::to_integer<std::size_t>(attributed[0]),
                             std::to_integer<std::size_t>(attributed[1]), count);
  if (screen.columns == 0) return std::nullopt;
  const bool hasCharacters = characters.size() == count * sizeof(char32_t);
  screen.cells.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    screen.cells.push_back(cellOf(wordAt<std::uint16_t>(words, i), highGlyphBit));
    if (hasCharacters) screen.cells.back().character = wordAt<char32_t>(characters, i);
  }
  return screen;
}

}  // namespace quillsift
