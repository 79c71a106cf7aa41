#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "platform/Mutex.h"
#include "platform/WorkQueues.h"
#include "platform/linux/ElasticPool.h"
#include "platform/linux/TimerThread.h"

namespace quillsift {

// A list of tasks and a step that runs its first one. While the list is not empty exactly one step
// is under way, which gives order and exclusion: on a thread that the executor or the pool finds,
// which then goes on for some steps, or with a target as a task of the target, one step a turn, so
// that the queues of one target take turns. The step holds the queue.
class LinuxSerialQueue : public SerialQueue, public std::enable_shared_from_this<LinuxSerialQueue> {
 public:
  // Runs a task later on a thread of its own choice. False, and nothing done, when it takes none.
  using Executor = std::function<bool(const Task&)>;

  // Where the steps run: on `target`, else on `executor` as long as it takes them, else on `pool`,
  // which must be able to give every serial queue on it a thread.
  LinuxSerialQueue(std::string label, QOSClass qos, std::shared_ptr<LinuxSerialQueue> target,
                   Executor executor, std::shared_ptr<ElasticPool> pool,
                   std::shared_ptr<TimerThread> timers);

  void async(Task task) override;
  void sync(Task task) override;
  void asyncAfter(std::chrono::nanoseconds delay, Task task) override;
  bool isCurrent() const override;
  const std::string& label() const override { return label_; }
  QOSClass qos() const override { return qos_; }

 private:
  // Arranges for the next step.
  void schedule();
  // Runs the first task. True when there is another, for which the caller arranges.
  bool runFirst();
  void abortIfWaitingForItself() const;

  const std::string label_;
  const QOSClass qos_;
  const std::shared_ptr<LinuxSerialQueue> target_;
  const Executor executor_;
  const std::shared_ptr<ElasticPool> pool_;
  const std::shared_ptr<TimerThread> timers_;

  Mutex mutex_;
  std::deque<Task> tasks_ QS_GUARDED_BY(mutex_);
  bool scheduled_ QS_GUARDED_BY(mutex_) = false;  // a step is waiting or running
};

}  // namespace quillsift
