#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "platform/Mutex.h"
#include "platform/WorkQueues.h"

namespace quillsift {

// A counter and the threads that wait for it to be zero. Leaving more often than entering is a
// programming error and aborts.
class LinuxWorkGroup : public WorkGroup {
 public:
  void enter() override;
  void leave() override;
  void wait() override;
  [[nodiscard]] bool waitFor(std::chrono::nanoseconds limit) override;

 private:
  Mutex mutex_;
  ConditionVariable emptied_;
  std::size_t members_ QS_GUARDED_BY(mutex_) = 0;
  // How often the last member has left. A waiter goes by this too: new members may join before it
  // gets to look at the counter.
  std::uint64_t timesEmptied_ QS_GUARDED_BY(mutex_) = 0;
};

}  // namespace quillsift
