#include "platform/linux/LinuxSystemLog.h"

#include <syslog.h>

#include <cerrno>
#include <utility>

namespace quillsift {

LinuxSystemLog::LinuxSystemLog() : sender_([this] { send(); }) {}

LinuxSystemLog::~LinuxSystemLog() {
  {
    const MutexLock lock(mutex_);
    closing_ = true;
    changed_.notify_all();
  }
  sender_.join();
}

void LinuxSystemLog::write(int priorityWord, const std::string& message) {
  const int saved = errno;
  {
    const MutexLock lock(mutex_);
    if (waiting_.size() < kMostWaiting) {
      noteDropped(priorityWord);
      waiting_.push_back({priorityWord, message});
    } else {
      ++dropped_;
    }
    changed_.notify_all();
  }
  errno = saved;
}

void LinuxSystemLog::noteDropped(int priorityWord) {
  if (dropped_ == 0) return;
  waiting_.push_back({(priorityWord & LOG_FACMASK) | LOG_WARNING,
                      std::to_string(dropped_) + " lines before this one were lost"});
  dropped_ = 0;
}

void LinuxSystemLog::send() {
  for (;;) {
    MutexLock lock(mutex_);
    while (waiting_.empty() && !closing_)
      changed_.wait(mutex_);
    if (waiting_.empty()) return;
    const Line line = std::move(waiting_.front());
    waiting_.pop_front();
    lock.unlock();
    ::syslog(line.priorityWord, "%s", line.message.c_str());
  }
}

}  // namespace quillsift
