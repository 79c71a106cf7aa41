#pragma once

#include <cstddef>
#include <cstdint>

namespace quillsift {

// A small font for pictures of text consoles, drawn for this purpose: ASCII, lines and blocks. What
// it lacks looks like an empty box, but for some signs that have a likeness in ASCII.
class ConsoleFont {
 public:
  // Dots of a character, the space to its neighbours included.
  static constexpr std::size_t kWidth = 6;
  static constexpr std::size_t kHeight = 10;

  // The dots of row `row` of a character; bit kWidth - 1 is the leftmost.
  static std::uint8_t row(char32_t character, std::size_t row);
};

}  // namespace quillsift
