#pragma once

#include <cstddef>
#include <optional>

namespace quillsift {

// Forgives faults in mapped files whose pages are lost: the owner cut the file, its disk died, the
// memory went bad. Where a page of a guarded range cannot be had, one of zeros takes its place for
// good and the reader goes on. Any other bus error goes to whoever handled them before, in the end
// to the default action, which ends the process.
//
// The first range installs the handler, for the whole process and for ever. Any thread. A thread
// that reads guarded ranges must not block SIGBUS. System calls are not guarded: a write(2) out of
// a lost page fails with EFAULT.
class LostPageGuard {
 public:
  // Names a guarded range.
  using Ticket = std::size_t;

  // How many ranges there may be: a quarter of the mappings that the kernel allows the process. A
  // range falls into several where pages are replaced, and the rest of the process needs some too.
  static std::size_t room();

  // Guards `length` bytes (not 0) of a mapping that begins at `begin`. None when `most` ranges or
  // more are guarded already; room() is the limit in any case.
  static std::optional<Ticket> add(const void* begin, std::size_t length, std::size_t most);
  // Before the range is unmapped.
  static void remove(Ticket ticket);
};

}  // namespace quillsift
