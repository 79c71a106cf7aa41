#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace quillsift {

// What a text console shows.
struct ConsoleScreen {
  struct Cell {
    char32_t character = U' ';
    std::uint8_t foreground = 7;  // the usual sixteen colours
    std::uint8_t background = 0;
  };

  std::size_t columns = 0;
  std::vector<Cell> cells;  // line by line

  std::size_t lines() const { return columns == 0 ? 0 : cells.size() / columns; }
};

// Reads the bytes of the kernel's console devices. `attributed` is that of /dev/vcsa: lines,
// columns and the cursor's place, one byte each, then a word for each cell, of a glyph number and
// colours. `characters` is that of /dev/vcsu, one UTF-32 character for each cell, or anything else
// where the kernel keeps no such list: then the glyphs are taken for characters. `highGlyphBit` is
// the bit of a word that is the ninth of the glyph number, or 0. None when the numbers do not fit
// together.
std::optional<ConsoleScreen> parseConsoleScreen(std::span<const std::byte> attributed,
                                                std::span<const std::byte> characters,
                                                std::uint16_t highGlyphBit);

}  // namespace quillsift
