#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Mutex.h"
#include "tests/doubles/FakeWorkQueues.h"

namespace quillsift {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;

class FakeWorkQueuesTest : public testing::Test {
 protected:
  std::shared_ptr<SerialQueue> serial(const char* label,
                                      std::shared_ptr<SerialQueue> target = nullptr) {
    return queues_.makeSerialQueue(label, QOSClass::utility, std::move(target));
  }

  FakeWorkQueues queues_;
};

TEST_F(FakeWorkQueuesTest, RunsSerialTasksInOrder) {
  const auto queue = serial("a");
  std::vector<int> order;
  for (int i = 0; i < 1000; ++i)
    queue->async([&order, i] { order.push_back(i); });
  queues_.drain();
  ASSERT_EQ(order.size(), 1000U);
  for (int i = 0; i < 1000; ++i)
    EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
}

TEST_F(FakeWorkQueuesTest, TasksOfQueuesWithOneTargetExcludeEachOther) {
  const auto target = serial("target");
  int shared = 0;  // unguarded on purpose: the sanitizer sees any overlap
  std::vector<std::shared_ptr<SerialQueue>> sharing{target, serial("a", target),
                                                    serial("b", target)};
  for (int i = 0; i < 300; ++i)
    sharing[static_cast<std::size_t>(i % 3)]->async([&shared] { ++shared; });
  queues_.drain();
  EXPECT_EQ(shared, 300);
}

TEST_F(FakeWorkQueuesTest, GlobalTasksRunConcurrently) {
  WorkQueue& queue = queues_.global(QOSClass::standard);
  std::promise<void> first;
  std::promise<void> second;
  queue.async([&] {
    first.set_value();
    second.get_future().wait();
  });
  queue.async([&] {
    first.get_future().wait();
    second.set_value();
  });
  queues_.drain();
  EXPECT_EQ(&queue, &queues_.global(QOSClass::standard));
}

TEST_F(FakeWorkQueuesTest, ATaskSeesTheClassOfItsQueue) {
  const auto target = queues_.makeSerialQueue("target", QOSClass::userInitiated);
  const auto queue = queues_.makeSerialQueue("queue", QOSClass::utility, target);
  QOSClass seen[4] = {};
  queue->async([&] { seen[0] = currentQOS(); });
  target->async([&] { seen[1] = currentQOS(); });
  queues_.global(QOSClass::standard).async([&] { seen[2] = currentQOS(); });
  queue->sync([&] { seen[3] = currentQOS(); });
  queues_.drain();
  EXPECT_EQ(seen[0], QOSClass::utility);
  EXPECT_EQ(seen[1], QOSClass::userInitiated);
  EXPECT_EQ(seen[2], QOSClass::standard);
  EXPECT_EQ(seen[3], QOSClass::utility);
}

TEST_F(FakeWorkQueuesTest, KnowsWhichQueuesAreCurrent) {
  const auto target = serial("target");
  const auto queue = serial("queue", target);
  const auto other = serial("other", target);
  bool onQueue[3] = {};
  bool onTarget[3] = {};
  queue->sync([&] {
    onQueue[0] = queue->isCurrent();
    onQueue[1] = target->isCurrent();
    onQueue[2] = other->isCurrent();
  });
  target->sync([&] {
    onTarget[0] = queue->isCurrent();
    onTarget[1] = target->isCurrent();
    onTarget[2] = other->isCurrent();
  });
  EXPECT_TRUE(onQueue[0]);
  EXPECT_TRUE(onQueue[1]);
  EXPECT_FALSE(onQueue[2]);
  EXPECT_FALSE(onTarget[0]);
  EXPECT_TRUE(onTarget[1]);
  EXPECT_FALSE(onTarget[2]);
  EXPECT_FALSE(queue->isCurrent());
}

TEST_F(FakeWorkQueuesTest, SyncWaitsAndBringsBackAnException) {
  const auto queue = serial("queue");
  std::vector<int> order;
  queue->async([&] { order.push_back(1); });
  queue->sync([&] { order.push_back(2); });
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
  EXPECT_THROW(queue->sync([] { throw std::runtime_error("out"); }), std::runtime_error);
  queue->sync([&] { order.push_back(3); });
  EXPECT_EQ(order.back(), 3);
}

using FakeWorkQueuesDeathTest = FakeWorkQueuesTest;

TEST_F(FakeWorkQueuesDeathTest, SyncThatCouldNeverReturnAborts) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const auto target = serial("target");
  const auto queue = serial("queue", target);
  const auto other = serial("other");
  const auto nothing = [] {};
  EXPECT_DEATH(queue->sync([&] { queue->sync(nothing); }), "sync on a queue");
  EXPECT_DEATH(queue->sync([&] { target->sync(nothing); }), "sync on a queue");
  EXPECT_DEATH(target->sync([&] { queue->sync(nothing); }), "sync on a queue");
  EXPECT_DEATH(queue->sync([&] { other->sync([&] { queue->sync(nothing); }); }), "sync on a queue");
}

TEST_F(FakeWorkQueuesDeathTest, LeavingAGroupTooOftenAborts) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(queues_.makeGroup()->leave(), "left more often");
}

TEST_F(FakeWorkQueuesTest, AQueueMayBeDroppedByItsOwnTask) {
  auto queue = serial("queue");
  std::atomic<int> ran = 0;
  auto* raw = queue.get();
  raw->async([&, held = std::move(queue)]() mutable {
    held->async([&] { ++ran; });
    held.reset();
    ++ran;
  });
  queues_.drain();
  EXPECT_EQ(ran, 2);
  EXPECT_EQ(queues_.queue("queue"), nullptr);
}

TEST_F(FakeWorkQueuesTest, TimersFireWhenTheClockReachesThem) {
  const auto queue = serial("timers");
  std::vector<std::string> order;
  queue->asyncAfter(10s, [&] { order.push_back("late"); });
  queue->asyncAfter(5s, [&] { order.push_back("early"); });
  ASSERT_EQ(queues_.pendingTimers().size(), 2U);
  EXPECT_EQ(queues_.pendingTimers()[0].due, nanoseconds(5s));
  EXPECT_EQ(queues_.pendingTimers()[0].label, "timers");

  queues_.advance(5s - 1ns);
  queues_.drain();
  EXPECT_TRUE(order.empty());
  queues_.advance(1ns);
  queues_.drain();
  EXPECT_EQ(order, (std::vector<std::string>{"early"}));
  queues_.advance(1h);
  queues_.drain();
  EXPECT_EQ(order, (std::vector<std::string>{"early", "late"}));
  EXPECT_EQ(queues_.now(), nanoseconds(1h + 5s));
}

TEST_F(FakeWorkQueuesTest, OneAdvanceFiresTimersInTheOrderOfTheirTimes) {
  const auto queue = serial("timers");
  std::vector<int> order;
  for (const int second : {3, 1, 2})
    queue->asyncAfter(std::chrono::seconds(second), [&order, second] { order.push_back(second); });
  queues_.advance(1min);
  queues_.drain();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST_F(FakeWorkQueuesTest, ATimedWaitEndsByTheClockAlone) {
  const auto group = queues_.makeGroup();
  group->enter();
  std::promise<bool> result;
  queues_.global(QOSClass::utility).async([&] { result.set_value(group->waitFor(180s)); });
  queues_.waitForParked(1);
  queues_.advance(180s - 1ns);
  EXPECT_EQ(queues_.parked(), 1U);
  queues_.advance(1ns);
  EXPECT_EQ(queues_.parked(), 0U);
  EXPECT_FALSE(result.get_future().get());
  EXPECT_EQ(queues_.waitLimits(), (std::vector<nanoseconds>{180s}));
  group->leave();
  queues_.drain();  // before what the task uses goes
}

TEST_F(FakeWorkQueuesTest, AWaitEndsWhenTheLastMemberLeaves) {
  const auto group = queues_.makeGroup();
  EXPECT_TRUE(group->waitFor(0s));
  group->wait();
  group->enter();
  EXPECT_FALSE(group->waitFor(0s));
  std::promise<bool> result;
  queues_.global(QOSClass::utility).async([&] { result.set_value(group->waitFor(1s)); });
  queues_.waitForParked(1);
  group->enter();
  group->leave();
  EXPECT_EQ(queues_.parked(), 1U);
  group->leave();
  EXPECT_TRUE(result.get_future().get());
  queues_.drain();  // before what the task uses goes
}

TEST_F(FakeWorkQueuesTest, SettleStopsWhereOnlyTheClockCanGoOn) {
  const auto runQueue = serial("run");
  const auto group = queues_.makeGroup();
  std::atomic<int> step = 0;
  group->enter();
  runQueue->async([&] {
    for (int i = 0; i < 3; ++i) {
      (void)group->waitFor(1s);
      ++step;
    }
  });
  runQueue->async([&] { ++step; });  // behind the waiting one
  for (int i = 0; i < 3; ++i) {
    queues_.settle();
    EXPECT_EQ(step, i);
    queues_.advance(1s);
  }
  queues_.drain();
  EXPECT_EQ(step, 4);
  group->leave();
}

TEST_F(FakeWorkQueuesTest, FindsQueuesByLabel) {
  const auto service = queues_.makeSerialQueue("service", QOSClass::userInitiated);
  const auto client = serial("client", service);
  EXPECT_EQ(queues_.queue("service"), service);
  EXPECT_EQ(queues_.queue("client"), client);
  EXPECT_EQ(queues_.queue("other"), nullptr);
  const auto records = queues_.queues();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].qos, QOSClass::userInitiated);
  EXPECT_EQ(records[0].targetLabel, "");
  EXPECT_EQ(records[1].label, "client");
  EXPECT_EQ(records[1].targetLabel, "service");
}

TEST_F(FakeWorkQueuesTest, DrainMeansThatWhatTheTasksHeldIsGone) {
  auto held = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = held;
  serial("a")->async([held] {});
  queues_.global(QOSClass::standard).async([held] {});
  serial("b")->sync([held] {});
  held.reset();
  queues_.drain();
  EXPECT_TRUE(watched.expired());
}

TEST_F(FakeWorkQueuesTest, ShutDownEndsTimedWaitsAndDropsTimers) {
  const auto group = queues_.makeGroup();
  const auto queue = serial("a");
  std::atomic<bool> fired = false;
  std::atomic<int> waits = 0;
  group->enter();
  queue->asyncAfter(1s, [&] { fired = true; });
  queue->async([&] {
    waits += group->waitFor(1h) ? 100 : 1;
    waits += group->waitFor(1h) ? 100 : 1;
  });
  queues_.waitForParked(1);
  queues_.shutDown();
  queue->async([&] { fired = true; });
  EXPECT_EQ(waits, 2);
  EXPECT_FALSE(fired);
  group->leave();
}

}  // namespace
}  // namespace quillsift
