#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/linux/MappedMemory.h"

namespace quillsift {

// Texts of log entries that come newest first and are wanted oldest first, within a limit. Filled
// from its end, so that nothing is moved when the next older entry turns up. One thread at a time.
class NewestEntries {
 public:
  // `limit` in bytes; none or less than one: takes no entry at all. Memory is taken as it fills.
  // Throws std::bad_alloc.
  explicit NewestEntries(std::int64_t limit);

  // Puts `entry` before what is there. The first that no longer fits ends it: no older one is
  // taken. An entry that could never fit is only counted.
  void add(std::string_view entry);
  // No older entry is taken from now on.
  void close() { open_ = false; }

  bool isOpen() const { return open_; }
  // All that was added, oldest first.
  std::string_view text() const;
  // Entries above the limit all by themselves.
  std::size_t tooLong() const { return tooLong_; }
  std::size_t limit() const { return limit_; }

 private:
  std::size_t limit_;
  MappedMemory memory_;
  std::size_t used_ = 0;
  std::size_t tooLong_ = 0;
  bool open_;
};

}  // namespace quillsift
