#include "platform/linux/ElasticPool.h"

#include <pthread.h>

#include <algorithm>
#include <deque>
#include <list>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Mutex.h"
#include "platform/linux/Deadline.h"
#include "platform/linux/SchedulingClass.h"

namespace quillsift {

namespace {

// How soon to try again when the host refuses a thread.
constexpr std::chrono::milliseconds kStartRetryDelay(10);

}  // namespace

class ElasticPool::State : public std::enable_shared_from_this<State> {
 public:
  State(std::string threadName, QOSClass qos, Limits limits, std::weak_ptr<TimerThread> starter,
        std::shared_ptr<WorkGroup> unfinished, Scheduling scheduling)
      : threadName_(std::move(threadName)),
        qos_(qos),
        limits_(limits),
        scheduling_(scheduling),
        starter_(std::move(starter)),
        unfinished_(std::move(unfinished)) {}

  void submit(Task task) {
    unfinished_->enter();
    Worker* called = nullptr;
    {
      const MutexLock lock(mutex_);
      if (idle_.empty()) {
        waiting_.push_back(std::move(task));
        if (needsThread() && !startRequested_) requestStart(std::chrono::nanoseconds::zero());
        return;
      }
      called = idle_.back();
      idle_.pop_back();
      called->task = std::move(task);
    }
    // Without the lock, or the worker would wake up only to wait for it.
    called->called.notify_one();
  }

  // Ends the threads. The calling one, if it is one of them, ends by itself later.
  void close() {
    std::list<std::thread> ending;
    {
      const MutexLock lock(mutex_);
      closed_ = true;
      for (Worker* worker : idle_)
        worker->called.notify_one();
      idle_.clear();
      ending = std::move(threads_);
      if (retired_.joinable()) ending.push_back(std::move(retired_));
    }
    for (std::thread& thread : ending) {
      if (thread.get_id() == std::this_thread::get_id()) {
        thread.detach();
      } else {
        thread.join();
      }
    }
  }

  std::size_t threadCount() const {
    const MutexLock lock(mutex_);
    return threads_.size();
  }

 private:
  // A thread's place while it is idle; tasks are handed over in it. Places outlive their threads:
  // a thread may be gone before the one that called it has done with the call.
  struct Worker {
    Task task;
    ConditionVariable called;
  };

  bool needsThread() const QS_REQUIRES(mutex_) {
    return waiting_.size() > starting_ && threads_.size() < limits_.threads;
  }

  void requestStart(std::chrono::nanoseconds delay) QS_REQUIRES(mutex_) {
    const std::shared_ptr<TimerThread> starter = starter_.lock();
    if (!starter) return;  // the pool is going
    starter->runAfter(delay, [self = shared_from_this()] { self->startThreads(); });
    startRequested_ = true;
  }

  // On the starter. One thread a turn of the lock, so that busy threads can take tasks meanwhile.
  void startThreads() {
    while (startThread()) {
    }
  }

  bool startThread() {
    const MutexLock lock(mutex_);
    startRequested_ = false;
    if (!needsThread()) return false;
    try {
      threads_.emplace_back([self = shared_from_this()] { self->work(); });
    } catch (const std::system_error&) {
      requestStart(kStartRetryDelay);
      return false;
    }
    ::pthread_setname_np(threads_.back().native_handle(), threadName_.c_str());
    ++starting_;
    return true;
  }

  void work() noexcept {
    if (scheduling_ == Scheduling::prompt) {
      setPromptScheduling(Promptness::answers);
    } else {
      setThreadSchedulingClass(qos_);
    }
    const ScopedQOS qos(qos_);
    Worker& self = takePlace();
    while (takeTask(self)) {
      self.task();
      self.task = nullptr;  // with all it holds, before it counts as finished
      unfinished_->leave();
    }
  }

  Worker& takePlace() {
    const MutexLock lock(mutex_);
    --starting_;
    if (freePlaces_.empty()) {
      freePlaces_.reserve(places_.size() + 1);  // nothing may fail when it is given back
      return places_.emplace_back();
    }
    Worker* place = freePlaces_.back();
    freePlaces_.pop_back();
    return *place;
  }

  // Fills in the next task; false when the thread has to end.
  bool takeTask(Worker& self) {
    std::thread predecessor;
    {
      const MutexLock lock(mutex_);
      if (!waiting_.empty()) {
        self.task = std::move(waiting_.front());
        waiting_.pop_front();
        return true;
      }
      if (!closed_) waitForTask(self);
      if (self.task) return true;
      if (!closed_) predecessor = retire();
      freePlaces_.push_back(&self);
    }
    if (predecessor.joinable()) predecessor.join();
    return false;
  }

  // Returns with a task, or without one when the idle time is over or the pool closes.
  void waitForTask(Worker& self) QS_REQUIRES(mutex_) {
    idle_.push_back(&self);
    const auto deadline = deadlineAfter(limits_.idleTime);
    while (!self.task && !closed_) {
      if (self.called.wait_until(mutex_, deadline) == std::cv_status::timeout) break;
    }
    if (!self.task) std::erase(idle_, &self);
  }

  // Takes the calling thread off the list. A thread cannot join itself, so the next one to retire
  // does it; hands out the one before.
  std::thread retire() QS_REQUIRES(mutex_) {
    const auto own = std::find_if(threads_.begin(), threads_.end(), [](const std::thread& thread) {
      return thread.get_id() == std::this_thread::get_id();
    });
    std::thread predecessor = std::exchange(retired_, std::move(*own));
    threads_.erase(own);
    return predecessor;
  }

  const std::string threadName_;
  const QOSClass qos_;
  const Limits limits_;
  const Scheduling scheduling_;
  const std::weak_ptr<TimerThread> starter_;
  const std::shared_ptr<WorkGroup> unfinished_;

  mutable Mutex mutex_;
  // Tasks wait only while no thread is idle.
  std::deque<Task> waiting_ QS_GUARDED_BY(mutex_);
  // The one that became idle last is called first, so that surplus threads reach their idle time.
  std::vector<Worker*> idle_ QS_GUARDED_BY(mutex_);
  std::list<Worker> places_ QS_GUARDED_BY(mutex_);
  std::vector<Worker*> freePlaces_ QS_GUARDED_BY(mutex_);
  std::list<std::thread> threads_ QS_GUARDED_BY(mutex_);
  std::thread retired_ QS_GUARDED_BY(mutex_);
  std::size_t starting_ QS_GUARDED_BY(mutex_) = 0;  // started, have not looked for a task yet
  bool startRequested_ QS_GUARDED_BY(mutex_) = false;
  bool closed_ QS_GUARDED_BY(mutex_) = false;
};

ElasticPool::ElasticPool(std::string threadName, QOSClass qos, Limits limits,
                         std::shared_ptr<TimerThread> starter,
                         std::shared_ptr<WorkGroup> unfinished, Scheduling scheduling)
    : starter_(std::move(starter)),
      state_(std::make_shared<State>(std::move(threadName), qos, limits, starter_,
                                     std::move(unfinished), scheduling)) {}

ElasticPool::~ElasticPool() {
  state_->close();
}

void ElasticPool::submit(Task task) {
  state_->submit(std::move(task));
}

std::size_t ElasticPool::threadCount() const {
  return state_->threadCount();
}

}  // namespace quillsift
