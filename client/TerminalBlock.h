#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "client/Output.h"

namespace quillsift {

struct TerminalSize {
  std::size_t columns = 80;
  std::size_t rows = 24;
};

// The size of the terminal behind a descriptor; 80 by 24 where it does not tell.
TerminalSize terminalSize(int descriptor);

// A few lines at the bottom of a terminal's output that are drawn again in place.
//
// Each change is one write of whole lines, so nothing flickers. The cursor always rests at the
// start of the line below, and no mode of the terminal is changed: there is nothing to restore,
// however the program ends.
class TerminalBlock {
 public:
  explicit TerminalBlock(Output& out) : out_(out) {}

  // Shows `lines` instead of those drawn before. They must be narrower than the terminal.
  void draw(const std::vector<std::string>& lines, TerminalSize size);
  // Puts a line of lasting text above the block.
  void printAbove(const std::string& text);
  void erase();

 private:
  std::string eraseSequence() const;

  Output& out_;
  std::vector<std::string> lines_;  // as they stand on the terminal
  std::size_t columns_ = 0;
};

}  // namespace quillsift
