#pragma once

#include <chrono>
#include <memory>
#include <thread>

#include "platform/WorkQueues.h"

namespace quillsift {

// One thread that makes calls at their time, in the order of their times. The calls must be short
// and must not block. An exception that leaves a call ends the process. Any thread.
class TimerThread {
 public:
  // `name` (15 bytes at most) is what thread lists show. Throws std::system_error when no thread
  // can be started.
  explicit TimerThread(const char* name);
  // Stops. May run in one of its own calls.
  ~TimerThread();
  TimerThread(const TimerThread&) = delete;
  TimerThread& operator=(const TimerThread&) = delete;

  // Makes the call no earlier than `delay` from now on the monotonic clock.
  void runAfter(std::chrono::nanoseconds delay, Task call);
  // Drops the calls that have not begun, now and later, and ends the thread. One caller at a time.
  void stop();

 private:
  class Calls;

  const std::shared_ptr<Calls> calls_;  // shared with the thread
  std::thread thread_;
};

}  // namespace quillsift
