#include "platform/linux/LinuxWorkQueues.h"

#include <limits>
#include <utility>

#include "platform/linux/LinuxWorkGroup.h"

namespace quillsift {

namespace {

// A serial queue takes one thread at most, so their number bounds the threads.
constexpr std::size_t kOneThreadASerialQueue = std::numeric_limits<std::size_t>::max();

// Tasks that do not block need no second thread, and a crowd of questions must not take every
// processor from those who collect.
constexpr std::size_t kPromptThreads = 1;
// It stays: a new one is started by a thread that is not in front of others.
constexpr std::chrono::hours kPromptIdleTime{24 * 365};

std::string threadName(QOSClass qos, const char* kind) {
  return "qs-" + std::to_string(static_cast<std::uint32_t>(qos)) + "-" + kind;
}

}  // namespace

class LinuxWorkQueues::ConcurrentQueue : public WorkQueue {
 public:
  explicit ConcurrentQueue(std::unique_ptr<ElasticPool> pool) : pool_(std::move(pool)) {}

  void async(Task task) override { pool_->submit(std::move(task)); }
  std::size_t threadCount() const { return pool_->threadCount(); }

 private:
  const std::unique_ptr<ElasticPool> pool_;
};

// Tasks keep the class of the thread that submits them; only the scheduling is another.
class LinuxWorkQueues::PromptQueue : public WorkQueue {
 public:
  PromptQueue(const std::shared_ptr<TimerThread>& starter,
              const std::shared_ptr<WorkGroup>& unfinished)
      : pool_("qs-prompt", QOSClass::standard, ElasticPool::Limits{kPromptThreads, kPromptIdleTime},
              starter, unfinished, ElasticPool::Scheduling::prompt) {}

  void async(Task task) override {
    pool_.submit([qos = currentQOS(), task = std::move(task)] {
      const ScopedQOS scope(qos);
      task();
    });
  }

 private:
  ElasticPool pool_;
};

struct LinuxWorkQueues::ClassQueues {
  ClassQueues(QOSClass qos, std::chrono::nanoseconds idleTime,
              const std::shared_ptr<TimerThread>& starter,
              const std::shared_ptr<WorkGroup>& unfinished)
      : concurrent(std::make_unique<ElasticPool>(threadName(qos, "work"), qos,
                                                 ElasticPool::Limits{kConcurrentTasks, idleTime},
                                                 starter, unfinished)),
        serial(std::make_shared<ElasticPool>(threadName(qos, "serial"), qos,
                                             ElasticPool::Limits{kOneThreadASerialQueue, idleTime},
                                             starter, unfinished)) {}

  ConcurrentQueue concurrent;
  const std::shared_ptr<ElasticPool> serial;
};

LinuxWorkQueues::LinuxWorkQueues(std::chrono::nanoseconds idleTime)
    : unfinished_(std::make_shared<LinuxWorkGroup>()),
      starter_(std::make_shared<TimerThread>("qs-starter")),
      timers_(std::make_shared<TimerThread>("qs-timer")),
      classes_{
          std::make_unique<ClassQueues>(QOSClass::utility, idleTime, starter_, unfinished_),
          std::make_unique<ClassQueues>(QOSClass::standard, idleTime, starter_, unfinished_),
          std::make_unique<ClassQueues>(QOSClass::userInitiated, idleTime, starter_, unfinished_)},
      prompt_(std::make_unique<PromptQueue>(starter_, unfinished_)) {}

LinuxWorkQueues::~LinuxWorkQueues() {
  timers_->stop();
  unfinished_->wait();
}

std::shared_ptr<SerialQueue> LinuxWorkQueues::makeSerialQueue(std::string label, QOSClass qos,
                                                              std::shared_ptr<SerialQueue> target) {
  return std::make_shared<LinuxSerialQueue>(
      std::move(label), qos, std::static_pointer_cast<LinuxSerialQueue>(std::move(target)), nullptr,
      queuesOf(qos).serial, timers_);
}

std::shared_ptr<SerialQueue> LinuxWorkQueues::makeSerialQueueOn(LinuxSerialQueue::Executor executor,
                                                                std::string label, QOSClass qos) {
  return std::make_shared<LinuxSerialQueue>(std::move(label), qos, nullptr, std::move(executor),
                                            queuesOf(qos).serial, timers_);
}

WorkQueue& LinuxWorkQueues::global(QOSClass qos) {
  return queuesOf(qos).concurrent;
}

WorkQueue& LinuxWorkQueues::prompt() {
  return *prompt_;
}

std::shared_ptr<WorkGroup> LinuxWorkQueues::makeGroup() {
  return std::make_shared<LinuxWorkGroup>();
}

std::size_t LinuxWorkQueues::threadCount(QOSClass qos) const {
  const ClassQueues& queues = queuesOf(qos);
  return queues.concurrent.threadCount() + queues.serial->threadCount();
}

LinuxWorkQueues::ClassQueues& LinuxWorkQueues::queuesOf(QOSClass qos) const {
  switch (qos) {
    case QOSClass::utility:
      return *classes_[0];
    case QOSClass::userInitiated:
      return *classes_[2];
    case QOSClass::standard:
      break;
  }
  return *classes_[1];
}

}  // namespace quillsift
