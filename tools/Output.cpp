#include "tools/Output.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace quillsift::tools {

namespace {

constexpr std::size_t kPieceSize = std::size_t{64} * 1024;  // the size of a pipe

}  // namespace

void Output::write(std::string_view bytes) {
  pending_ += bytes;
  size_ += bytes.size();
  if (pending_.size() >= kPieceSize) flush();
}

void Output::line(std::string_view text) {
  lineOf({text});
}

void Output::lineOf(std::initializer_list<std::string_view> pieces) {
  for (const std::string_view piece : pieces)
    write(piece);
  write("\n");
}

void Output::print(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char* text = nullptr;
  const int length = ::vasprintf(&text, format, arguments);
  va_end(arguments);
  if (length < 0) return;
  write({text, static_cast<std::size_t>(length)});
  std::free(text);
}

void Output::flush() {
  std::string_view rest = pending_;
  while (!rest.empty()) {
    const ssize_t count = ::write(descriptor_, rest.data(), rest.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    rest.remove_prefix(static_cast<std::size_t>(count));
  }
  pending_.clear();
}

}  // namespace quillsift::tools
