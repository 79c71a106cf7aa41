#include "platform/linux/LinuxSerialQueue.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <utility>

namespace quillsift {

namespace {

// Tasks run before whoever else uses the thread has a turn.
constexpr int kStepsPerTurn = 64;

// The queues whose tasks the calling thread is running, innermost first.
struct Running {
  const SerialQueue* queue;
  const Running* outer;
};

thread_local const Running* innermostRunning = nullptr;

class ScopedRunning {
 public:
  explicit ScopedRunning(const SerialQueue* queue) : running_{queue, innermostRunning} {
    innermostRunning = &running_;
  }
  ~ScopedRunning() { innermostRunning = running_.outer; }
  ScopedRunning(const ScopedRunning&) = delete;
  ScopedRunning& operator=(const ScopedRunning&) = delete;

 private:
  const Running running_;
};

// The end of one synchronous call, and what it threw.
class Completion {
 public:
  void complete(std::exception_ptr thrown) {
    const MutexLock lock(mutex_);
    thrown_ = std::move(thrown);
    completed_ = true;
    changed_.notify_one();
  }

  std::exception_ptr wait() {
    const MutexLock lock(mutex_);
    while (!completed_)
      changed_.wait(mutex_);
    return std::move(thrown_);
  }

 private:
  Mutex mutex_;
  ConditionVariable changed_;
  std::exception_ptr thrown_ QS_GUARDED_BY(mutex_);
  bool completed_ QS_GUARDED_BY(mutex_) = false;
};

std::exception_ptr exceptionOf(const Task& task) {
  try {
    task();
  } catch (...) {
    return std::current_exception();
  }
  return nullptr;
}

}  // namespace

LinuxSerialQueue::LinuxSerialQueue(std::string label, QOSClass qos,
                                   std::shared_ptr<LinuxSerialQueue> target, Executor executor,
                                   std::shared_ptr<ElasticPool> pool,
                                   std::shared_ptr<TimerThread> timers)
    : label_(std::move(label)),
      qos_(qos),
      target_(std::move(target)),
      executor_(std::move(executor)),
      pool_(std::move(pool)),
      timers_(std::move(timers)) {}

void LinuxSerialQueue::async(Task task) {
  const MutexLock lock(mutex_);
  tasks_.push_back(std::move(task));
  if (scheduled_) return;
  try {
    schedule();
  } catch (...) {
    // The caller hears of it, and the queue takes the next one. What the task holds goes without
    // the lock.
    task = std::move(tasks_.back());
    tasks_.pop_back();
    throw;
  }
  scheduled_ = true;
}

void LinuxSerialQueue::sync(Task task) {
  abortIfWaitingForItself();
  const auto completion = std::make_shared<Completion>();
  // The task itself stays here: what it holds is let go by the caller.
  async([completion, &task] { completion->complete(exceptionOf(task)); });
  if (const std::exception_ptr thrown = completion->wait()) std::rethrow_exception(thrown);
}

void LinuxSerialQueue::asyncAfter(std::chrono::nanoseconds delay, Task task) {
  timers_->runAfter(delay, [self = shared_from_this(), task = std::move(task)]() mutable {
    self->async(std::move(task));
  });
}

bool LinuxSerialQueue::isCurrent() const {
  for (const Running* running = innermostRunning; running != nullptr; running = running->outer) {
    if (running->queue == this) return true;
  }
  return false;
}

void LinuxSerialQueue::schedule() {
  if (target_) {
    target_->async([self = shared_from_this()] {
      if (self->runFirst()) self->schedule();
    });
    return;
  }
  Task steps = [self = shared_from_this()] {
    for (int step = 0; step < kStepsPerTurn; ++step) {
      if (!self->runFirst()) return;
    }
    self->schedule();
  };
  if (!executor_ || !executor_(steps)) pool_->submit(std::move(steps));
}

bool LinuxSerialQueue::runFirst() {
  Task task;
  {
    const MutexLock lock(mutex_);
    task = std::move(tasks_.front());
    tasks_.pop_front();
  }
  {
    const ScopedQOS qos(qos_);
    const ScopedRunning running(this);
    task();
    task = nullptr;
  }
  const MutexLock lock(mutex_);
  scheduled_ = !tasks_.empty();
  return scheduled_;
}

// A task of the queue, of its target or of another queue of that target stands in the way of the
// new one for as long as it waits.
void LinuxSerialQueue::abortIfWaitingForItself() const {
  for (const LinuxSerialQueue* queue = this; queue != nullptr; queue = queue->target_.get()) {
    if (!queue->isCurrent()) continue;
    std::fprintf(stderr, "quillsift: sync on queue \"%s\" from a task of queue \"%s\" never ends\n",
                 label_.c_str(), innermostRunning->queue->label().c_str());
    std::abort();
  }
}

}  // namespace quillsift
