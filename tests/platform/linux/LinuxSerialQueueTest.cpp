#include <gtest/gtest.h>

#include <latch>
#include <memory>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/linux/LinuxSerialQueue.h"
#include "platform/linux/LinuxWorkQueues.h"
#include "tests/platform/linux/Gate.h"

namespace quillsift {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

class LinuxSerialQueueTest : public testing::Test {
 protected:
  std::shared_ptr<SerialQueue> makeQueue(std::shared_ptr<SerialQueue> target = nullptr,
                                         QOSClass qos = QOSClass::standard) {
    return queues_.makeSerialQueue("queue", qos, std::move(target));
  }

  LinuxWorkQueues queues_;
};

TEST_F(LinuxSerialQueueTest, KnowsItsLabelAndClass) {
  const auto queue = queues_.makeSerialQueue("io.vantor.example", QOSClass::utility);
  EXPECT_EQ(queue->label(), "io.vantor.example");
  EXPECT_EQ(queue->qos(), QOSClass::utility);
}

TEST_F(LinuxSerialQueueTest, RunsTasksInOrderOnAnotherThread) {
  const auto queue = makeQueue();
  std::vector<int> order;
  const std::thread::id caller = std::this_thread::get_id();
  for (int task = 0; task < 10000; ++task) {
    queue->async([&order, task, caller] {
      EXPECT_NE(std::this_thread::get_id(), caller);
      order.push_back(task);
    });
  }
  queue->sync([] {});
  ASSERT_EQ(order.size(), 10000U);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST_F(LinuxSerialQueueTest, QueuesOfOneTargetExcludeEachOtherAndKeepTheirOwnOrder) {
  constexpr int kQueues = 24;
  constexpr int kThreads = 4;
  constexpr int kTasks = 100;
  const auto target = makeQueue();
  const auto between = makeQueue(target);
  std::vector<std::shared_ptr<SerialQueue>> queues;
  for (int index = 0; index < kQueues; ++index) {
    queues.push_back(makeQueue(index % 2 == 0 ? target : between));
  }
  int running = 0;  // plain on purpose: only exclusion protects it
  std::vector<std::vector<int>> orders(kQueues);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int task = 0; task < kTasks; ++task) {
        for (std::size_t index = 0; index < kQueues; ++index) {
          queues[index]->async([&, index, thread, task] {
            EXPECT_EQ(++running, 1);
            orders[index].push_back(thread * kTasks + task);
            EXPECT_EQ(--running, 0);
          });
        }
        target->async([&] {
          EXPECT_EQ(++running, 1);
          EXPECT_EQ(--running, 0);
        });
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  for (const auto& queue : queues)
    queue->sync([] {});
  for (const std::vector<int>& order : orders) {
    ASSERT_EQ(order.size(), std::size_t{kThreads * kTasks});
    std::vector<int> last(kThreads, -1);
    for (const int number : order) {
      int& before = last[static_cast<std::size_t>(number / kTasks)];
      EXPECT_LT(before, number);
      before = number;
    }
  }
}

TEST_F(LinuxSerialQueueTest, QueuesOfOneTargetTakeTurns) {
  const auto target = makeQueue();
  const auto first = makeQueue(target);
  const auto second = makeQueue(target);
  std::string order;
  Gate queued;
  target->async([&] { queued.pass(); });
  for (int round = 0; round < 3; ++round)
    first->async([&] { order += "a"; });
  for (int round = 0; round < 3; ++round)
    second->async([&] { order += "b"; });
  queued.open();
  first->sync([] {});
  second->sync([] {});
  EXPECT_EQ(order, "ababab");
}

// Asks the queue for something when it goes, as what a task holds may do.
class AsksAtItsEnd {
 public:
  explicit AsksAtItsEnd(SerialQueue* queue) : queue_(queue) {}
  ~AsksAtItsEnd() {
    queue_->async([] {});
  }

 private:
  SerialQueue* const queue_;
};

TEST_F(LinuxSerialQueueTest, TakesTheNextTaskAfterOneThatCouldNotBeScheduled) {
  int refusals = 1;
  const auto queue = queues_.makeSerialQueueOn(
      [&](const Task&) {
        if (refusals-- > 0) throw std::bad_alloc();
        return false;
      },
      "queue", QOSClass::standard);
  bool ran = false;
  EXPECT_THROW(queue->async([&ran, held = std::make_shared<AsksAtItsEnd>(queue.get())] {
    (void)held;
    ran = true;
  }),
               std::bad_alloc);
  queue->sync([] {});
  EXPECT_FALSE(ran);
}

TEST_F(LinuxSerialQueueTest, SyncReturnsWhenTheTaskHasEnded) {
  const auto queue = makeQueue();
  for (int round = 0; round < 200; ++round) {
    int result = 0;
    const auto held = std::make_shared<int>(round);
    queue->sync([&result, held] { result = *held; });
    EXPECT_EQ(result, round);
    EXPECT_EQ(held.use_count(), 1);
  }
}

TEST_F(LinuxSerialQueueTest, SyncBringsTheExceptionBack) {
  const auto queue = makeQueue();
  for (int round = 0; round < 100; ++round) {
    try {
      queue->sync([] { throw std::runtime_error("what the task said"); });
      FAIL() << "nothing was thrown";
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), "what the task said");
    }
  }
  int run = 0;
  queue->sync([&] { ++run; });
  EXPECT_EQ(run, 1);
}

TEST_F(LinuxSerialQueueTest, SyncBetweenUnrelatedQueuesWorksFromATask) {
  const auto outer = makeQueue();
  const auto inner = makeQueue();
  bool run = false;
  outer->sync([&] { inner->sync([&] { run = true; }); });
  EXPECT_TRUE(run);
}

TEST_F(LinuxSerialQueueTest, IsCurrentInItsOwnTasksAndInThoseOfQueuesThatTargetIt) {
  const auto target = makeQueue();
  const auto queue = makeQueue(target);
  const auto sibling = makeQueue(target);
  EXPECT_FALSE(target->isCurrent());
  queue->sync([&] {
    EXPECT_TRUE(queue->isCurrent());
    EXPECT_TRUE(target->isCurrent());
    EXPECT_FALSE(sibling->isCurrent());
  });
  target->sync([&] {
    EXPECT_TRUE(target->isCurrent());
    EXPECT_FALSE(queue->isCurrent());
  });
  EXPECT_FALSE(queue->isCurrent());
}

TEST_F(LinuxSerialQueueTest, TheClassInATaskIsTheQueues) {
  const auto target = makeQueue(nullptr, QOSClass::userInitiated);
  const auto queue = makeQueue(target, QOSClass::utility);
  queue->sync([] { EXPECT_EQ(currentQOS(), QOSClass::utility); });
  target->sync([] { EXPECT_EQ(currentQOS(), QOSClass::userInitiated); });
  EXPECT_EQ(currentQOS(), QOSClass::standard);
}

TEST_F(LinuxSerialQueueTest, ADelayedTaskRunsNoEarlier) {
  const auto queue = makeQueue();
  Gate done;
  steady_clock::time_point run;
  const auto submitted = steady_clock::now();
  queue->asyncAfter(15ms, [&] {
    EXPECT_TRUE(queue->isCurrent());
    run = steady_clock::now();
    done.open();
  });
  done.pass();
  EXPECT_GE(run - submitted, 15ms);
}

TEST_F(LinuxSerialQueueTest, TasksOfADroppedQueueStillRun) {
  std::latch run(4);
  auto target = makeQueue();
  auto queue = makeQueue(target);
  Gate dropped;
  const std::weak_ptr<SerialQueue> observed = queue;
  queue->async([&] {
    dropped.pass();
    run.count_down();
  });
  queue->async([&] { run.count_down(); });
  queue->asyncAfter(1ms, [&] { run.count_down(); });
  target->async([&] { run.count_down(); });
  queue.reset();
  target.reset();
  dropped.open();
  run.wait();
  while (!observed.expired())
    std::this_thread::yield();
}

TEST_F(LinuxSerialQueueTest, MayBeDroppedByItsOwnTask) {
  for (int round = 0; round < 200; ++round) {
    Gate done;
    auto target = makeQueue();
    auto queue = makeQueue(target);
    SerialQueue* const raw = queue.get();
    Gate released;
    raw->async([&done, &released, last = std::move(queue)]() mutable {
      released.pass();
      last.reset();
      done.open();
    });
    target.reset();
    released.open();
    done.pass();
  }
}

TEST(LinuxSerialQueueLifeTest, OutlivesTheQueuesItCameFrom) {
  std::shared_ptr<SerialQueue> queue;
  {
    LinuxWorkQueues queues;
    queue = queues.makeSerialQueue("queue", QOSClass::standard);
    queue->async([] {});
  }
  bool run = false;
  queue->sync([&] { run = true; });
  EXPECT_TRUE(run);
}

TEST(LinuxSerialQueueLifeTest, TheLastOneMayGoOnItsOwnThread) {
  Gate done;
  std::shared_ptr<SerialQueue> queue;
  {
    LinuxWorkQueues queues;
    queue = queues.makeSerialQueue("queue", QOSClass::standard);
  }
  SerialQueue* const raw = queue.get();
  Gate released;
  raw->async([&, last = std::move(queue)]() mutable {
    released.pass();
    last.reset();
    done.open();
  });
  released.open();
  done.pass();
}

class LinuxSerialQueueDeathTest : public LinuxSerialQueueTest {
 protected:
  LinuxSerialQueueDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(LinuxSerialQueueDeathTest, SyncOnItselfAborts) {
  const auto queue = makeQueue();
  EXPECT_DEATH(queue->sync([&] { queue->sync([] {}); }),
               "sync on queue \"queue\" from a task of queue \"queue\" never ends");
}

TEST_F(LinuxSerialQueueDeathTest, SyncOnATargetAborts) {
  const auto target = makeQueue();
  const auto queue = makeQueue(target);
  EXPECT_DEATH(queue->sync([&] { target->sync([] {}); }), "never ends");
}

TEST_F(LinuxSerialQueueDeathTest, SyncOnAQueueThatTargetsThisOneAborts) {
  const auto target = makeQueue();
  const auto queue = makeQueue(target);
  EXPECT_DEATH(target->sync([&] { queue->sync([] {}); }), "never ends");
}

TEST_F(LinuxSerialQueueDeathTest, SyncOnASiblingAborts) {
  const auto target = makeQueue();
  const auto queue = makeQueue(target);
  const auto sibling = makeQueue(makeQueue(target));
  EXPECT_DEATH(queue->sync([&] { sibling->sync([] {}); }), "never ends");
}

TEST_F(LinuxSerialQueueDeathTest, AnExceptionThatLeavesATaskEndsTheProcess) {
  const auto queue = makeQueue();
  EXPECT_DEATH(
      {
        queue->async([] { throw std::runtime_error("stray"); });
        queue->sync([] {});
      },
      "stray");
}

}  // namespace
}  // namespace quillsift
