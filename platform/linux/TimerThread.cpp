#include "platform/linux/TimerThread.h"

#include <pthread.h>

#include <map>
#include <utility>

#include "platform/Mutex.h"
#include "platform/linux/Deadline.h"

namespace quillsift {

using std::chrono::steady_clock;

class TimerThread::Calls {
 public:
  void add(steady_clock::time_point due, Task call) {
    const MutexLock lock(mutex_);
    if (stopped_) return;
    const auto place = pending_.emplace(due, std::move(call));
    if (place == pending_.begin()) changed_.notify_one();
  }

  void stop() {
    std::multimap<steady_clock::time_point, Task> dropped;
    const MutexLock lock(mutex_);
    stopped_ = true;
    dropped.swap(pending_);  // what the calls hold is let go after the lock
    changed_.notify_one();
  }

  void run() noexcept {
    while (const Task call = next())
      call();
  }

 private:
  // Waits for the first call that is due; empty once stopped.
  Task next() {
    const MutexLock lock(mutex_);
    while (!stopped_) {
      if (pending_.empty()) {
        changed_.wait(mutex_);
        continue;
      }
      const auto first = pending_.begin();
      const steady_clock::time_point due = first->first;
      if (steady_clock::now() >= due) return std::move(pending_.extract(first).mapped());
      changed_.wait_until(mutex_, due);
    }
    return nullptr;
  }

  Mutex mutex_;
  ConditionVariable changed_;
  std::multimap<steady_clock::time_point, Task> pending_ QS_GUARDED_BY(mutex_);
  bool stopped_ QS_GUARDED_BY(mutex_) = false;
};

TimerThread::TimerThread(const char* name)
    : calls_(std::make_shared<Calls>()), thread_([calls = calls_] { calls->run(); }) {
  ::pthread_setname_np(thread_.native_handle(), name);
}

TimerThread::~TimerThread() {
  stop();
}

void TimerThread::runAfter(std::chrono::nanoseconds delay, Task call) {
  calls_->add(deadlineAfter(delay), std::move(call));
}

void TimerThread::stop() {
  calls_->stop();
  if (!thread_.joinable()) return;
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();
  } else {
    thread_.join();
  }
}

}  // namespace quillsift
