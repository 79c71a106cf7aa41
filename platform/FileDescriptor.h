#pragma once

#include <utility>

namespace quillsift {

// Owns one file descriptor and closes it. Never converts to int by itself.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  ~FileDescriptor() { reset(); }
  FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }

  bool valid() const { return descriptor_ >= 0; }
  int get() const { return descriptor_; }
  int release() { return std::exchange(descriptor_, -1); }
  // Closes what is held, keeping errno.
  void reset(int descriptor = -1);

 private:
  int descriptor_ = -1;
};

}  // namespace quillsift
