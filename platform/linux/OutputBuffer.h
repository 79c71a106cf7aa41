#pragma once

#include <cstddef>
#include <memory>
#include <span>

#include "platform/FileDescriptor.h"
#include "platform/QSData.h"
#include "platform/linux/MappedMemory.h"

namespace quillsift {

// Collects bytes of unknown number and hands them out in one piece, held once.
//
// Where they are depends on how many there are: up to 64 KiB in a heap buffer, cut to size at the
// end; up to 1 MiB in a mapping that grows in place; beyond that in an anonymous memory file, which
// takes whole pages without clearing them first and is mapped at the end. A memory file needs a
// descriptor until then; without one the mapping goes on growing. So finished bytes hold no
// descriptor, and small ones no mapping, of which a process can have only so many.
//
// One thread at a time.
class OutputBuffer {
 public:
  // Where the next bytes go; never empty.
  std::span<std::byte> room();
  // The first `count` bytes of room() are filled. Throws std::bad_alloc when memory runs out, after
  // which the buffer can only be destroyed.
  void commit(std::size_t count);
  std::size_t length() const { return length_; }

  // The bytes; the buffer is empty afterwards. Throws std::bad_alloc.
  QSData take();

 private:
  std::span<std::byte> memory() const;
  void makeRoom();
  void moveToFile(FileDescriptor file);

  std::unique_ptr<std::byte[]> heap_;  // the first place
  MappedMemory mapping_;               // the second, and what is read into on the way to the third
  FileDescriptor file_;                // the third
  std::size_t length_ = 0;             // of everything
  std::size_t filled_ = 0;             // of memory()
};

}  // namespace quillsift
