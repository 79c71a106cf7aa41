#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

namespace quillsift::tools {

// What a recipe prints, on its way to one descriptor. Bytes are gathered and written in large
// pieces; whoever lets another process write to the same place flushes first.
//
// A descriptor that takes no more bytes (a full disk, a reader that went away) swallows the rest:
// nobody is left to tell.
class Output {
 public:
  explicit Output(int descriptor) : descriptor_(descriptor) {}
  ~Output() { flush(); }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void write(std::string_view bytes);
  // `text` and a newline.
  void line(std::string_view text);
  // The pieces in their order and a newline.
  void lineOf(std::initializer_list<std::string_view> pieces);
  [[gnu::format(printf, 2, 3)]] void print(const char* format, ...);
  void flush();

  // How many bytes were handed over so far.
  std::size_t size() const { return size_; }
  // Where it all goes, for a child that is to write there by itself.
  int descriptor() const { return descriptor_; }

 private:
  const int descriptor_;  // not owned
  std::string pending_;
  std::size_t size_ = 0;
};

}  // namespace quillsift::tools
