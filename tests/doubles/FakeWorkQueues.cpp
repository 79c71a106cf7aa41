#include "tests/doubles/FakeWorkQueues.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <functional>
#include <list>
#include <map>
#include <new>
#include <set>
#include <thread>
#include <utility>

#include "platform/Mutex.h"

namespace quillsift {

namespace {

using std::chrono::nanoseconds;

// A whole session may lie behind one wait, and on a busy machine with a sanitizer it takes its
// time.
constexpr std::chrono::seconds kPatience{240};
constexpr std::size_t kMostWorkers = 256;

[[noreturn]] void misuse(const char* what) {
  std::fprintf(stderr, "FakeWorkQueues: %s\n", what);
  std::abort();
}

thread_local bool onWorker = false;
// The serial queues whose tasks this thread is running, outermost first.
thread_local std::vector<const void*> running;

class RunningScope {
 public:
  explicit RunningScope(const void* queue) { running.push_back(queue); }
  ~RunningScope() { running.pop_back(); }
  RunningScope(const RunningScope&) = delete;
  RunningScope& operator=(const RunningScope&) = delete;
};

bool isRunning(const void* queue) {
  return std::find(running.begin(), running.end(), queue) != running.end();
}

}  // namespace

// The threads, the clock and everything that waits for it, under one mutex.
class FakeWorkQueues::Core {
 public:
  // A serial queue's tasks. Kept alive by its handle and by every step that is still to run.
  struct SerialState {
    struct Item {
      Task task;
      bool isStep;  // the step of a queue that targets this one
    };

    const std::string label;
    const QOSClass qos;
    const std::shared_ptr<SerialState> target;
    std::deque<Item> items{};  // the two under Core::mutex_
    bool scheduled = false;
  };
  using SerialPointer = std::shared_ptr<SerialState>;

  // A thread that waits for a group or a sync. Lives on that thread's stack.
  struct Waiter {
    const void* what;
    std::optional<nanoseconds> due;
    bool isTask = onWorker;
    bool released = false;
    bool timedOut = false;
  };

  // Before whatever takes memory for a queue of this label.
  void takeMemory(const std::string& label) const QS_EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    if (withoutMemory_.contains(label)) throw std::bad_alloc();
  }
  void submit(QOSClass qos, Task task);
  void submit(const SerialPointer& queue, Task task);
  void submitSync(const SerialPointer& queue, const Task& task);
  void submitAfter(const SerialPointer& queue, nanoseconds delay, Task task);

  void enter(std::size_t* members);
  void leave(const void* group, std::size_t* members);
  bool wait(const void* group, const std::size_t* members, std::optional<nanoseconds> limit);

  void advance(nanoseconds step);
  void waitUntil(const char* what, const std::function<bool(const Core&)>& reached) const;
  void shutDown();

  bool drained() const QS_REQUIRES(mutex_) { return outstanding_ == 0; }
  bool settled() const QS_REQUIRES(mutex_);
  std::size_t parked() const QS_REQUIRES(mutex_);
  std::size_t ready() const QS_REQUIRES(mutex_) { return ready_.size(); }
  std::size_t timerCount() const QS_REQUIRES(mutex_) { return timers_.size(); }

  struct Timer {
    SerialPointer queue;
    nanoseconds delay;
    Task task;
  };

  mutable Mutex mutex_;
  nanoseconds now_ QS_GUARDED_BY(mutex_){0};
  std::multimap<nanoseconds, Timer> timers_ QS_GUARDED_BY(mutex_);
  std::vector<nanoseconds> waitLimits_ QS_GUARDED_BY(mutex_);
  std::vector<QueueRecord> queues_ QS_GUARDED_BY(mutex_);
  std::set<std::string> withoutMemory_ QS_GUARDED_BY(mutex_);  // labels
  std::map<QOSClass, std::unique_ptr<WorkQueue>> globals_ QS_GUARDED_BY(mutex_);

 private:
  void post(Task task) QS_REQUIRES(mutex_);
  void schedule(const SerialPointer& queue) QS_REQUIRES(mutex_);
  void push(const SerialPointer& queue, Task task, bool isStep) QS_REQUIRES(mutex_);
  void runOne(const SerialPointer& queue) QS_EXCLUDES(mutex_);
  void finished() QS_REQUIRES(mutex_);
  void work() QS_EXCLUDES(mutex_);
  void block(Waiter& waiter) QS_REQUIRES(mutex_);
  void release(const void* what) QS_REQUIRES(mutex_);
  std::optional<nanoseconds> nextEvent() const QS_REQUIRES(mutex_);
  void fireDue() QS_REQUIRES(mutex_);
  void endTimedWaits() QS_REQUIRES(mutex_);
  [[noreturn]] void giveUp(const char* what) const QS_REQUIRES(mutex_);

  mutable ConditionVariable changed_;  // for those who wait for a state
  ConditionVariable work_;             // for idle workers
  std::deque<Task> ready_ QS_GUARDED_BY(mutex_);
  std::vector<std::thread> workers_ QS_GUARDED_BY(mutex_);
  std::list<Waiter*> waiters_ QS_GUARDED_BY(mutex_);
  std::size_t idle_ QS_GUARDED_BY(mutex_) = 0;
  std::size_t busy_ QS_GUARDED_BY(mutex_) = 0;
  std::size_t outstanding_ QS_GUARDED_BY(mutex_) = 0;  // tasks submitted and not ended
  bool closing_ QS_GUARDED_BY(mutex_) = false;
  bool stopped_ QS_GUARDED_BY(mutex_) = false;
};

// --- running tasks

void FakeWorkQueues::Core::post(Task task) {
  ready_.push_back(std::move(task));
  if (ready_.size() > idle_ && workers_.size() < kMostWorkers) {
    workers_.emplace_back([this] { work(); });
  }
  work_.notify_one();
}

void FakeWorkQueues::Core::work() {
  onWorker = true;
  MutexLock lock(mutex_);
  for (;;) {
    ++idle_;
    while (ready_.empty() && !stopped_)
      work_.wait(mutex_);
    --idle_;
    if (ready_.empty()) return;
    Task task = std::move(ready_.front());
    ready_.pop_front();
    ++busy_;
    lock.unlock();
    task();
    task = nullptr;
    lock.lock();
    --busy_;
    changed_.notify_all();
  }
}

void FakeWorkQueues::Core::finished() {
  --outstanding_;
  changed_.notify_all();
}

void FakeWorkQueues::Core::submit(QOSClass qos, Task task) {
  MutexLock lock(mutex_);
  if (stopped_) return;
  ++outstanding_;
  post([this, qos, task = std::move(task)]() mutable {
    {
      const ScopedQOS scope(qos);
      task();
      task = nullptr;
    }
    MutexLock relock(mutex_);
    finished();
  });
}

void FakeWorkQueues::Core::submit(const SerialPointer& queue, Task task) {
  MutexLock lock(mutex_);
  if (stopped_) return;
  ++outstanding_;
  push(queue, std::move(task), false);
}

void FakeWorkQueues::Core::push(const SerialPointer& queue, Task task, bool isStep) {
  queue->items.push_back({std::move(task), isStep});
  if (queue->scheduled) return;
  queue->scheduled = true;
  schedule(queue);
}

void FakeWorkQueues::Core::schedule(const SerialPointer& queue) {
  Task step = [this, queue] { runOne(queue); };
  if (queue->target) {
    push(queue->target, std::move(step), true);
  } else {
    post(std::move(step));
  }
}

void FakeWorkQueues::Core::runOne(const SerialPointer& queue) {
  MutexLock lock(mutex_);
  SerialState::Item item = std::move(queue->items.front());
  queue->items.pop_front();
  lock.unlock();
  {
    const RunningScope scope(queue.get());
    const ScopedQOS qos(queue->qos);
    item.task();
    item.task = nullptr;
  }
  lock.lock();
  if (!item.isStep) finished();
  if (queue->items.empty()) {
    queue->scheduled = false;
  } else {
    schedule(queue);
  }
}

void FakeWorkQueues::Core::submitSync(const SerialPointer& queue, const Task& task) {
  for (const SerialState* state = queue.get(); state != nullptr; state = state->target.get()) {
    if (isRunning(state)) misuse("sync on a queue from one of its own tasks, or from its target's");
  }
  std::exception_ptr thrown;
  Waiter waiter{&thrown, std::nullopt};
  MutexLock lock(mutex_);
  if (stopped_) misuse("sync after the queues were shut down");
  ++outstanding_;
  // The task counts as run by the caller, who waits for it: a sync back to one of the caller's own
  // queues would never return and has to be found.
  push(
      queue,
      [&, callers = running] {
        const std::vector<const void*> own = std::exchange(running, callers);
        running.insert(running.end(), own.begin(), own.end());
        try {
          task();
        } catch (...) {
          thrown = std::current_exception();
        }
        running = own;
        MutexLock relock(mutex_);
        release(&thrown);
      },
      false);
  block(waiter);
  lock.unlock();
  if (thrown) std::rethrow_exception(thrown);
}

// --- waiting

void FakeWorkQueues::Core::block(Waiter& waiter) {
  waiters_.push_back(&waiter);
  changed_.notify_all();
  while (!waiter.released)
    changed_.wait(mutex_);
}

void FakeWorkQueues::Core::release(const void* what) {
  for (auto waiter = waiters_.begin(); waiter != waiters_.end();) {
    if ((*waiter)->what != what) {
      ++waiter;
      continue;
    }
    (*waiter)->released = true;
    waiter = waiters_.erase(waiter);
  }
  changed_.notify_all();
}

void FakeWorkQueues::Core::enter(std::size_t* members) {
  MutexLock lock(mutex_);
  ++*members;
}

void FakeWorkQueues::Core::leave(const void* group, std::size_t* members) {
  MutexLock lock(mutex_);
  if (*members == 0) misuse("a group was left more often than entered");
  if (--*members == 0) release(group);
}

bool FakeWorkQueues::Core::wait(const void* group, const std::size_t* members,
                                std::optional<nanoseconds> limit) {
  MutexLock lock(mutex_);
  if (limit) waitLimits_.push_back(*limit);
  if (*members == 0) return true;
  if (limit && (*limit <= nanoseconds(0) || closing_)) return false;
  Waiter waiter{group, limit ? std::optional(now_ + *limit) : std::nullopt};
  block(waiter);
  return !waiter.timedOut;
}

// --- the clock

void FakeWorkQueues::Core::submitAfter(const SerialPointer& queue, nanoseconds delay, Task task) {
  if (delay <= nanoseconds(0)) return submit(queue, std::move(task));
  MutexLock lock(mutex_);
  if (closing_) return;
  timers_.emplace(now_ + delay, Timer{queue, delay, std::move(task)});
  changed_.notify_all();
}

std::optional<nanoseconds> FakeWorkQueues::Core::nextEvent() const {
  std::optional<nanoseconds> next;
  if (!timers_.empty()) next = timers_.begin()->first;
  for (const Waiter* waiter : waiters_) {
    if (waiter->due && (!next || *waiter->due < *next)) next = waiter->due;
  }
  return next;
}

void FakeWorkQueues::Core::fireDue() {
  while (!timers_.empty() && timers_.begin()->first <= now_) {
    Timer timer = std::move(timers_.begin()->second);
    timers_.erase(timers_.begin());
    ++outstanding_;
    push(timer.queue, std::move(timer.task), false);
  }
  endTimedWaits();
}

void FakeWorkQueues::Core::endTimedWaits() {
  for (auto waiter = waiters_.begin(); waiter != waiters_.end();) {
    if (!(*waiter)->due || (!closing_ && *(*waiter)->due > now_)) {
      ++waiter;
      continue;
    }
    (*waiter)->timedOut = true;
    (*waiter)->released = true;
    waiter = waiters_.erase(waiter);
  }
  changed_.notify_all();
}

void FakeWorkQueues::Core::advance(nanoseconds step) {
  MutexLock lock(mutex_);
  const nanoseconds end = now_ + step;
  for (auto next = nextEvent(); next && *next <= end; next = nextEvent()) {
    now_ = *next;
    fireDue();
  }
  now_ = end;
}

// --- for the test

std::size_t FakeWorkQueues::Core::parked() const {
  return static_cast<std::size_t>(
      std::count_if(waiters_.begin(), waiters_.end(),
                    [](const Waiter* waiter) { return waiter->due.has_value(); }));
}

bool FakeWorkQueues::Core::settled() const {
  const auto blocked = std::count_if(waiters_.begin(), waiters_.end(),
                                     [](const Waiter* waiter) { return waiter->isTask; });
  return ready_.empty() && busy_ == static_cast<std::size_t>(blocked);
}

void FakeWorkQueues::Core::waitUntil(const char* what,
                                     const std::function<bool(const Core&)>& reached) const {
  if (onWorker) misuse("a task waits for the queues it runs on");
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  MutexLock lock(mutex_);
  while (!reached(*this)) {
    if (changed_.wait_until(mutex_, deadline) == std::cv_status::timeout && !reached(*this)) {
      giveUp(what);
    }
  }
}

void FakeWorkQueues::Core::giveUp(const char* what) const {
  std::fprintf(stderr,
               "FakeWorkQueues: still waiting for %s: %zu tasks, %zu of them ready, %zu workers "
               "busy, %zu threads waiting (%zu timed), %zu timers, clock at %lld ns\n",
               what, outstanding_, ready_.size(), busy_, waiters_.size(), parked(), timers_.size(),
               static_cast<long long>(now_.count()));
  for (const QueueRecord& record : queues_) {
    std::fprintf(stderr, "  queue %s%s\n", record.label.c_str(),
                 record.queue.expired() ? " (dropped)" : "");
  }
  std::abort();
}

void FakeWorkQueues::Core::shutDown() {
  std::multimap<nanoseconds, Timer> dropped;
  std::vector<std::thread> workers;
  {
    MutexLock lock(mutex_);
    if (stopped_) return;
    closing_ = true;
    dropped.swap(timers_);
    endTimedWaits();
  }
  dropped.clear();
  waitUntil("the last tasks to end",
            [](const Core& core) QS_NO_ANALYSIS { return core.drained(); });
  {
    MutexLock lock(mutex_);
    stopped_ = true;
    workers.swap(workers_);
    work_.notify_all();
  }
  for (std::thread& worker : workers)
    worker.join();
}

// --- the handles

class FakeWorkQueues::Serial : public SerialQueue {
 public:
  Serial(std::shared_ptr<Core> core, Core::SerialPointer state)
      : core_(std::move(core)), state_(std::move(state)) {}

  void async(Task task) override {
    core_->takeMemory(state_->label);
    core_->submit(state_, std::move(task));
  }
  void sync(Task task) override { core_->submitSync(state_, task); }
  void asyncAfter(nanoseconds delay, Task task) override {
    core_->submitAfter(state_, delay, std::move(task));
  }
  bool isCurrent() const override { return isRunning(state_.get()); }
  const std::string& label() const override { return state_->label; }
  QOSClass qos() const override { return state_->qos; }

  const Core::SerialPointer& state() const { return state_; }

 private:
  const std::shared_ptr<Core> core_;
  const Core::SerialPointer state_;
};

class FakeWorkQueues::Global : public WorkQueue {
 public:
  Global(Core& core, QOSClass qos) : core_(core), qos_(qos) {}

  void async(Task task) override { core_.submit(qos_, std::move(task)); }

 private:
  Core& core_;  // owns this
  const QOSClass qos_;
};

class FakeWorkQueues::Group : public WorkGroup {
 public:
  explicit Group(std::shared_ptr<Core> core) : core_(std::move(core)) {}

  void enter() override { core_->enter(&members_); }
  void leave() override { core_->leave(this, &members_); }
  void wait() override { (void)core_->wait(this, &members_, std::nullopt); }
  bool waitFor(nanoseconds limit) override { return core_->wait(this, &members_, limit); }

 private:
  const std::shared_ptr<Core> core_;
  std::size_t members_ = 0;  // under the core's mutex
};

FakeWorkQueues::FakeWorkQueues() : core_(std::make_shared<Core>()) {}

FakeWorkQueues::~FakeWorkQueues() {
  shutDown();
}

std::shared_ptr<SerialQueue> FakeWorkQueues::makeSerialQueue(std::string label, QOSClass qos,
                                                             std::shared_ptr<SerialQueue> target) {
  const auto* targetQueue = dynamic_cast<const Serial*>(target.get());
  if (target && targetQueue == nullptr) misuse("a target queue of another kind");
  core_->takeMemory(label);
  auto state = std::make_shared<Core::SerialState>(Core::SerialState{
      std::move(label), qos, targetQueue != nullptr ? targetQueue->state() : nullptr});
  auto queue = std::make_shared<Serial>(core_, state);
  MutexLock lock(core_->mutex_);
  core_->queues_.push_back({state->label, qos, state->target ? state->target->label : "", queue});
  return queue;
}

void FakeWorkQueues::refuseMemory(const std::string& label, bool refuse) {
  MutexLock lock(core_->mutex_);
  if (refuse) {
    core_->withoutMemory_.insert(label);
  } else {
    core_->withoutMemory_.erase(label);
  }
}

WorkQueue& FakeWorkQueues::global(QOSClass qos) {
  MutexLock lock(core_->mutex_);
  std::unique_ptr<WorkQueue>& queue = core_->globals_[qos];
  if (!queue) queue = std::make_unique<Global>(*core_, qos);
  return *queue;
}

std::shared_ptr<WorkGroup> FakeWorkQueues::makeGroup() {
  return std::make_shared<Group>(core_);
}

nanoseconds FakeWorkQueues::now() const {
  MutexLock lock(core_->mutex_);
  return core_->now_;
}

void FakeWorkQueues::advance(nanoseconds step) {
  core_->advance(step);
}

void FakeWorkQueues::waitForParked(std::size_t count) {
  core_->waitUntil("threads to park",
                   [=](const Core& core) QS_NO_ANALYSIS { return core.parked() >= count; });
}

void FakeWorkQueues::waitForTimers(std::size_t count) {
  core_->waitUntil("timers",
                   [=](const Core& core) QS_NO_ANALYSIS { return core.timerCount() >= count; });
}

void FakeWorkQueues::drain() {
  core_->waitUntil("all tasks to end",
                   [](const Core& core) QS_NO_ANALYSIS { return core.drained(); });
}

void FakeWorkQueues::settle() {
  core_->waitUntil("all tasks to end or wait",
                   [](const Core& core) QS_NO_ANALYSIS { return core.settled(); });
}

std::vector<FakeWorkQueues::QueueRecord> FakeWorkQueues::queues() const {
  MutexLock lock(core_->mutex_);
  return core_->queues_;
}

std::shared_ptr<SerialQueue> FakeWorkQueues::queue(const std::string& label) const {
  const std::vector<QueueRecord> records = queues();
  for (auto record = records.rbegin(); record != records.rend(); ++record) {
    if (record->label != label) continue;
    if (auto living = record->queue.lock()) return living;
  }
  return nullptr;
}

std::vector<FakeWorkQueues::TimerRecord> FakeWorkQueues::pendingTimers() const {
  MutexLock lock(core_->mutex_);
  std::vector<TimerRecord> records;
  for (const auto& [due, timer] : core_->timers_)
    records.push_back({timer.queue->label, due, timer.delay});
  return records;
}

std::vector<nanoseconds> FakeWorkQueues::waitLimits() const {
  MutexLock lock(core_->mutex_);
  return core_->waitLimits_;
}

std::size_t FakeWorkQueues::parked() const {
  MutexLock lock(core_->mutex_);
  return core_->parked();
}

std::size_t FakeWorkQueues::ready() const {
  MutexLock lock(core_->mutex_);
  return core_->ready();
}

void FakeWorkQueues::shutDown() {
  core_->shutDown();
}

}  // namespace quillsift
