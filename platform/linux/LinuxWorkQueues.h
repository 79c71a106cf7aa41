#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "platform/WorkQueues.h"
#include "platform/linux/ElasticPool.h"
#include "platform/linux/LinuxSerialQueue.h"
#include "platform/linux/TimerThread.h"

namespace quillsift {

// Queues on elastic pools, two for each class: one runs the tasks of the concurrent queue, the
// other the serial queues, so that these get a thread whatever the tasks of the first wait for.
// Threads of the utility class have a lower CPU and I/O priority, which the children they launch
// inherit. Prompt tasks, of any class, have one thread in front of all.
//
// Destroying it waits for the tasks that are waiting or running and drops the delayed ones that are
// not due. Not from one of its own tasks.
class LinuxWorkQueues : public WorkQueues {
 public:
  // How many tasks of one class can block at the same time; more wait for one to end.
  static constexpr std::size_t kConcurrentTasks = 256;
  // How long a thread without work stays: longer than the pauses inside a session.
  static constexpr std::chrono::seconds kIdleTime{10};

  explicit LinuxWorkQueues(std::chrono::nanoseconds idleTime = kIdleTime);
  ~LinuxWorkQueues() override;

  std::shared_ptr<SerialQueue> makeSerialQueue(
      std::string label, QOSClass qos, std::shared_ptr<SerialQueue> target = nullptr) override;
  // A serial queue that runs on threads of somebody else as long as these take its tasks.
  std::shared_ptr<SerialQueue> makeSerialQueueOn(LinuxSerialQueue::Executor executor,
                                                 std::string label, QOSClass qos);
  WorkQueue& global(QOSClass qos) override;
  WorkQueue& prompt() override;
  std::shared_ptr<WorkGroup> makeGroup() override;

  // The threads of both pools of a class; the prompt one is of none.
  std::size_t threadCount(QOSClass qos) const;

 private:
  class ConcurrentQueue;
  class PromptQueue;
  struct ClassQueues;

  ClassQueues& queuesOf(QOSClass qos) const;

  const std::shared_ptr<WorkGroup> unfinished_;
  const std::shared_ptr<TimerThread> starter_;
  const std::shared_ptr<TimerThread> timers_;
  const std::array<std::unique_ptr<ClassQueues>, 3> classes_;
  const std::unique_ptr<PromptQueue> prompt_;
};

}  // namespace quillsift
