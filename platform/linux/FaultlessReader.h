#pragma once

#include <cstddef>
#include <memory>

#include "platform/FileDescriptor.h"
#include "platform/linux/MappedMemory.h"

namespace quillsift {

// Copies bytes out of memory that may be taken away at any time, such as that of a device. The
// kernel makes the copy, so that a lost page is an error and not a signal. One thread at a time.
class FaultlessReader {
 public:
  // For copies of `length` bytes, not 0. Null when memory or descriptors run out.
  static std::unique_ptr<FaultlessReader> make(std::size_t length);

  // The copy, until the next call; null when the bytes cannot be read.
  const std::byte* read(const std::byte* bytes);

 private:
  FaultlessReader(FileDescriptor file, MappedMemory copy, std::size_t length);

  const FileDescriptor file_;
  const MappedMemory copy_;  // of the file
  const std::size_t length_;
};

}  // namespace quillsift
