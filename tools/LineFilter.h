#pragma once

#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>

namespace quillsift::tools {

// Decides on each line of a host tool's output, given without its newline: false drops the line,
// and what the filter leaves in `line` is what is printed.
using LineFilter = std::function<bool(std::string& line)>;

// Cuts a stream of bytes into lines and passes each through a filter. A line longer than
// kLongestLine is filtered in pieces; no tool that is filtered here prints such lines.
class LineSplitter {
 public:
  static constexpr std::size_t kLongestLine = std::size_t{1024} * 1024;

  LineSplitter(LineFilter filter, std::function<void(std::string_view line)> sink);

  void feed(std::string_view bytes);
  // The end of the stream: what stands behind the last newline is a line too.
  void finish();

 private:
  void emit();

  LineFilter filter_;
  std::function<void(std::string_view)> sink_;
  std::string line_;
};

// Drops the lines in which one of `words` stands as words of their own, in any case: "eui" is in
// "IEEE EUI-64:", not in "queuing".
LineFilter dropLinesWith(std::initializer_list<std::string_view> words);

// Masks secrets as withSecretsMasked does.
LineFilter maskSecrets();

// Whether a program says in this line that it was refused something.
bool saysNotPermitted(std::string_view line);

// Both, the first of them first.
LineFilter both(LineFilter first, LineFilter second);

}  // namespace quillsift::tools
