#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/WorkQueues.h"

namespace quillsift {

// Queues on real threads with a clock that only the test turns. Tasks run at once and concurrently;
// asyncAfter and WorkGroup::waitFor know virtual time alone.
//
// A step of a test: wait until what should be waiting does (waitForParked, waitForTimers, settle),
// advance, then drain or settle. Each of these ends the process with a picture of the queues when
// nothing comes of it for minutes. Any thread, but none from inside a task.
class FakeWorkQueues : public WorkQueues {
 public:
  struct QueueRecord {
    std::string label;
    QOSClass qos;
    std::string targetLabel;  // empty without a target
    std::weak_ptr<SerialQueue> queue;
  };
  struct TimerRecord {
    std::string label;               // of the queue
    std::chrono::nanoseconds due;    // on the virtual clock
    std::chrono::nanoseconds delay;  // as asked for
  };

  FakeWorkQueues();
  ~FakeWorkQueues() override;  // shutDown

  std::shared_ptr<SerialQueue> makeSerialQueue(
      std::string label, QOSClass qos, std::shared_ptr<SerialQueue> target = nullptr) override;
  WorkQueue& global(QOSClass qos) override;
  // The concurrent queue of the caller's class; how often it was asked for is counted.
  WorkQueue& prompt() override {
    ++promptTasks_;
    return global(currentQOS());
  }
  int promptTasks() const { return promptTasks_; }
  std::shared_ptr<WorkGroup> makeGroup() override;

  // Time since this was made.
  std::chrono::nanoseconds now() const;
  // Moves the clock, firing due timers and ending due group waits in the order of their times.
  // Returns at once: what it set off may still run.
  void advance(std::chrono::nanoseconds step);

  // Until at least `count` threads wait in WorkGroup::waitFor.
  void waitForParked(std::size_t count);
  // Until at least `count` timers are pending.
  void waitForTimers(std::size_t count);
  // Until every task has ended. Pending timers do not count.
  void drain();
  // Until no task can go on unless the clock moves or somebody outside the queues acts: all have
  // ended or wait in a group or a sync. A task that blocks elsewhere keeps this waiting.
  void settle();

  // Every serial queue ever made, in order.
  std::vector<QueueRecord> queues() const;
  // From now on no memory is to be had for a queue of this label: making one and submitting to one
  // throws std::bad_alloc, until this is taken back.
  void refuseMemory(const std::string& label, bool refuse = true);
  // The newest living queue of this label; null if there is none.
  std::shared_ptr<SerialQueue> queue(const std::string& label) const;
  std::vector<TimerRecord> pendingTimers() const;
  // The limits of all timed group waits so far, in order, those that did not have to wait included.
  std::vector<std::chrono::nanoseconds> waitLimits() const;
  std::size_t parked() const;
  // How many tasks no thread has begun though nothing is before them.
  std::size_t ready() const;

  // Ends all timed waits, drops pending timers, waits for every task and joins the threads. Tasks
  // submitted afterwards are dropped. A second call does nothing.
  void shutDown();

 private:
  class Core;
  class Serial;
  class Global;
  class Group;

  const std::shared_ptr<Core> core_;
  std::atomic<int> promptTasks_ = 0;
};

}  // namespace quillsift
