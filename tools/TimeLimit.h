#pragma once

#include <chrono>

namespace quillsift::tools {

// A limit on the time that own code spends, also within one read: when it passes, a system call
// that waits returns with EINTR. For as long as it lives it owns the process's SIGALRM and its
// real-time interval timer, so there is one at a time.
class TimeLimit {
 public:
  explicit TimeLimit(std::chrono::milliseconds limit);
  ~TimeLimit();
  TimeLimit(const TimeLimit&) = delete;
  TimeLimit& operator=(const TimeLimit&) = delete;

  bool passed() const { return std::chrono::steady_clock::now() >= end_; }

 private:
  const std::chrono::steady_clock::time_point end_;
};

}  // namespace quillsift::tools
