#include "client/TerminalBlock.h"

#include <sys/ioctl.h>

#include "platform/Text.h"

namespace quillsift {

namespace {

constexpr const char* kEraseToLineEnd = "\x1b[K";
constexpr const char* kEraseBelow = "\x1b[J";

std::string upBy(std::size_t lines) {
  return lines == 0 ? "" : formatted("\x1b[%zuA", lines);
}

std::string drawing(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines)
    text += line + kEraseToLineEnd + "\n";
  return text;
}

}  // namespace

TerminalSize terminalSize(int descriptor) {
  winsize size{};
  if (::ioctl(descriptor, TIOCGWINSZ, &size) != 0) return {};
  TerminalSize result;
  if (size.ws_col > 0) result.columns = size.ws_col;
  if (size.ws_row > 0) result.rows = size.ws_row;
  return result;
}

void TerminalBlock::draw(const std::vector<std::string>& lines, TerminalSize size) {
  // A terminal that was made narrower has broken the old lines into more: they stay where they
  // are, above, rather than have the wrong ones overwritten.
  if (size.columns != columns_) lines_.clear();
  columns_ = size.columns;

  std::string text = "\r" + upBy(lines_.size()) + drawing(lines);
  if (lines.size() < lines_.size()) text += kEraseBelow;
  out_.write(text);
  lines_ = lines;
}

void TerminalBlock::printAbove(const std::string& text) {
  out_.write(eraseSequence() + text + "\n" + drawing(lines_));
}

void TerminalBlock::erase() {
  if (lines_.empty()) return;
  out_.write(eraseSequence());
  lines_.clear();
}

std::string TerminalBlock::eraseSequence() const {
  return lines_.empty() ? "" : "\r" + upBy(lines_.size()) + kEraseBelow;
}

}  // namespace quillsift
