#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <thread>

#include "platform/Mutex.h"
#include "platform/SystemLog.h"

namespace quillsift {

// syslog(3), on a thread of its own: a logger that has stopped reading blocks its senders, and they
// hold locks. Lines keep their order. Without a logger that listens they go nowhere; behind one
// that is stuck, so many wait and further ones are dropped; the next line that is sent says how
// many.
class LinuxSystemLog : public SystemLog {
 public:
  static constexpr std::size_t kMostWaiting = 4096;

  LinuxSystemLog();
  // Sends what waits.
  ~LinuxSystemLog() override;
  LinuxSystemLog(const LinuxSystemLog&) = delete;
  LinuxSystemLog& operator=(const LinuxSystemLog&) = delete;

  void write(int priorityWord, const std::string& message) override;

 private:
  struct Line {
    int priorityWord;
    std::string message;
  };

  void noteDropped(int priorityWord) QS_REQUIRES(mutex_);
  void send();

  Mutex mutex_;
  ConditionVariable changed_;
  std::deque<Line> waiting_ QS_GUARDED_BY(mutex_);
  std::size_t dropped_ QS_GUARDED_BY(mutex_) = 0;  // since the last line that was taken
  bool closing_ QS_GUARDED_BY(mutex_) = false;
  std::thread sender_;
};

}  // namespace quillsift
