#pragma once

#include <string_view>

namespace quillsift {

// Bytes to a descriptor that somebody else may close, fill up or stop reading at any time.
class Output {
 public:
  // Not owned.
  explicit Output(int descriptor) : descriptor_(descriptor) {}

  // Writes all of `text`, waiting for a slow reader. After a failure nothing more is written.
  void write(std::string_view text);

  int descriptor() const { return descriptor_; }
  // The errno of the write that failed; 0 while all is well.
  int error() const { return error_; }

 private:
  const int descriptor_;
  int error_ = 0;
};

}  // namespace quillsift
