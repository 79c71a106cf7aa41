#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "platform/QualityOfService.h"
#include "platform/WorkQueues.h"
#include "platform/linux/TimerThread.h"

namespace quillsift {

// Threads of one class that run tasks, begun in the order they came. A task that finds every
// thread busy gets a new one, up to the bound; threads without work end after a while.
//
// Destroy it when no task is waiting and none runs but, at most, the one that destroys it.
class ElasticPool {
 public:
  struct Limits {
    std::size_t threads;
    std::chrono::nanoseconds idleTime;
  };
  enum class Scheduling { ofClass, prompt };

  // New threads are started by `starter`, so that they never inherit the niceness of a thread that
  // happens to submit, and so that a refusal (too many threads on this host) can be tried again.
  // Every task is a member of `unfinished` from its submission until it is gone.
  ElasticPool(std::string threadName, QOSClass qos, Limits limits,
              std::shared_ptr<TimerThread> starter, std::shared_ptr<WorkGroup> unfinished,
              Scheduling scheduling = Scheduling::ofClass);
  ~ElasticPool();
  ElasticPool(const ElasticPool&) = delete;
  ElasticPool& operator=(const ElasticPool&) = delete;

  // Any thread; does not block. An exception that leaves the task ends the process.
  void submit(Task task);
  std::size_t threadCount() const;

 private:
  class State;

  const std::shared_ptr<TimerThread> starter_;
  const std::shared_ptr<State> state_;  // shared with the threads
};

}  // namespace quillsift
