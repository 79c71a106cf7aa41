#include "platform/linux/LinuxWorkGroup.h"

#include <cstdio>
#include <cstdlib>

#include "platform/linux/Deadline.h"

namespace quillsift {

void LinuxWorkGroup::enter() {
  const MutexLock lock(mutex_);
  ++members_;
}

void LinuxWorkGroup::leave() {
  const MutexLock lock(mutex_);
  if (members_ == 0) {
    std::fputs("quillsift: a work group was left more often than entered\n", stderr);
    std::abort();
  }
  if (--members_ != 0) return;
  ++timesEmptied_;
  emptied_.notify_all();
}

void LinuxWorkGroup::wait() {
  const MutexLock lock(mutex_);
  const std::uint64_t before = timesEmptied_;
  while (members_ != 0 && timesEmptied_ == before)
    emptied_.wait(mutex_);
}

bool LinuxWorkGroup::waitFor(std::chrono::nanoseconds limit) {
  const auto deadline = deadlineAfter(limit);
  const MutexLock lock(mutex_);
  const std::uint64_t before = timesEmptied_;
  while (members_ != 0 && timesEmptied_ == before) {
    if (emptied_.wait_until(mutex_, deadline) == std::cv_status::timeout) {
      return members_ == 0 || timesEmptied_ != before;
    }
  }
  return true;
}

}  // namespace quillsift
