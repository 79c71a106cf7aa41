#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "platform/QualityOfService.h"

namespace quillsift {

using Task = std::function<void()>;

// Counts unfinished work. Members may join while others wait. Any thread.
class WorkGroup {
 public:
  virtual ~WorkGroup() = default;

  virtual void enter() = 0;
  virtual void leave() = 0;
  // Returns once no member is left; at once for an empty group.
  virtual void wait() = 0;
  // The same for at most `limit` on the monotonic clock; false when members are left.
  [[nodiscard]] virtual bool waitFor(std::chrono::nanoseconds limit) = 0;
};

// Runs tasks later, on threads of its own. What an implementation promises:
// - async never blocks and never runs the task on the calling thread;
// - currentQOS() inside a task is the queue's class;
// - a queue may be dropped while tasks wait, also by one of its own tasks: they still run;
// - an exception that leaves a task ends the process.
class WorkQueue {
 public:
  virtual ~WorkQueue() = default;

  virtual void async(Task task) = 0;
  // The task is a member of `group` from this call until it has ended, exceptions included.
  void asyncInGroup(const std::shared_ptr<WorkGroup>& group, Task task);
};

// Runs its tasks one at a time, in order. With a target queue, tasks of all queues that share the
// target exclude each other; only the order within one queue is promised.
class SerialQueue : public WorkQueue {
 public:
  // Runs the task and returns when it has ended; an exception comes back to the caller. Calling it
  // on the queue itself, or on a queue that targets it, is a programming error and aborts.
  virtual void sync(Task task) = 0;  // NOLINT(bugprone-virtual-near-miss): not async misspelt
  // Runs the task no earlier than `delay` from now on the monotonic clock.
  virtual void asyncAfter(std::chrono::nanoseconds delay, Task task) = 0;
  // Whether the calling thread is running a task of this queue or of one that targets it.
  virtual bool isCurrent() const = 0;
  virtual const std::string& label() const = 0;
  virtual QOSClass qos() const = 0;
};

class WorkQueues {
 public:
  virtual ~WorkQueues() = default;

  virtual std::shared_ptr<SerialQueue> makeSerialQueue(
      std::string label, QOSClass qos, std::shared_ptr<SerialQueue> target = nullptr) = 0;
  // The concurrent queue of a class, one for the process. Grows with what waits, so blocked tasks
  // do not keep others from running until a high bound is reached.
  virtual WorkQueue& global(QOSClass qos) = 0;
  // Runs tasks that are short, never block and are waited for by a person: one after the other, but
  // first on the processors. They are of the class of whoever submits them.
  virtual WorkQueue& prompt() = 0;
  virtual std::shared_ptr<WorkGroup> makeGroup() = 0;
};

}  // namespace quillsift
