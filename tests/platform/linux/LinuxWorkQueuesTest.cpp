#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>

#include <atomic>
#include <latch>
#include <stdexcept>
#include <thread>

#include "platform/linux/LinuxWorkQueues.h"
#include "tests/platform/linux/Gate.h"
#include "tests/platform/linux/ThreadPriority.h"

namespace quillsift {
namespace {

using namespace std::chrono_literals;

constexpr QOSClass kClasses[] = {QOSClass::utility, QOSClass::standard, QOSClass::userInitiated};

TEST(LinuxWorkQueuesTest, ThereIsOneConcurrentQueueForEachClass) {
  LinuxWorkQueues queues;
  for (const QOSClass qos : kClasses) {
    EXPECT_EQ(&queues.global(qos), &queues.global(qos));
    const auto group = queues.makeGroup();
    queues.global(qos).asyncInGroup(group, [qos] { EXPECT_EQ(currentQOS(), qos); });
    group->wait();
  }
  EXPECT_NE(&queues.global(QOSClass::utility), &queues.global(QOSClass::standard));
}

TEST(LinuxWorkQueuesTest, HundredsOfBlockedTasksKeepNobodyElseFromRunning) {
  constexpr int kTasks = 300;
  constexpr int kBound = static_cast<int>(LinuxWorkQueues::kConcurrentTasks);
  LinuxWorkQueues queues;
  const auto group = queues.makeGroup();
  std::latch begun(kBound);
  std::atomic<int> running = 0;
  Gate release;
  for (int task = 0; task < kTasks; ++task) {
    queues.global(QOSClass::utility).asyncInGroup(group, [&] {
      if (++running <= kBound) begun.count_down();
      release.pass();
    });
  }
  begun.wait();
  int run = 0;
  queues.makeSerialQueue("serial", QOSClass::utility)->sync([&] { ++run; });
  EXPECT_EQ(run, 1);
  const auto other = queues.makeGroup();
  queues.global(QOSClass::standard).asyncInGroup(other, [&] { ++run; });
  other->wait();
  EXPECT_EQ(run, 2);
  EXPECT_EQ(running, kBound);
  EXPECT_FALSE(group->waitFor(1ms));
  release.open();
  group->wait();
  EXPECT_EQ(running, kTasks);
}

TEST(LinuxWorkQueuesTest, HundredsOfTasksMayWaitForOneSerialQueue) {
  LinuxWorkQueues queues;
  const auto serial = queues.makeSerialQueue("serial", QOSClass::standard);
  const auto group = queues.makeGroup();
  int run = 0;
  for (int task = 0; task < 400; ++task) {
    queues.global(QOSClass::standard).asyncInGroup(group, [&] { serial->sync([&] { ++run; }); });
  }
  group->wait();
  EXPECT_EQ(run, 400);
}

TEST(LinuxWorkQueuesTest, HundredsOfSerialQueuesMayBlockAtOnce) {
  constexpr int kQueues = 300;
  std::latch begun(kQueues);
  Gate release;
  LinuxWorkQueues queues;  // the first to go: it waits for those that pass the gate
  for (int queue = 0; queue < kQueues; ++queue) {
    queues.makeSerialQueue("serial", QOSClass::standard)->async([&] {
      begun.count_down();
      release.pass();
    });
  }
  begun.wait();
  release.open();
}

TEST(LinuxWorkQueuesTest, WhatAGroupsTaskHoldsIsGoneBeforeItLeaves) {
  LinuxWorkQueues queues;
  const auto serial = queues.makeSerialQueue("serial", QOSClass::standard);
  const auto group = queues.makeGroup();
  const auto held = std::make_shared<int>(0);
  serial->asyncInGroup(group, [held] {});
  group->wait();
  EXPECT_EQ(held.use_count(), 1);
}

TEST(LinuxWorkQueuesTest, ThreadsWithoutWorkEnd) {
  LinuxWorkQueues queues(1ms);
  for (const QOSClass qos : kClasses) {
    for (int task = 0; task < 50; ++task)
      queues.global(qos).async([] {});
    queues.makeSerialQueue("serial", qos)->sync([] {});
    while (queues.threadCount(qos) != 0)
      std::this_thread::yield();
  }
}

TEST(LinuxWorkQueuesTest, PromptTasksAreOfTheClassOfWhoeverSubmitsThem) {
  LinuxWorkQueues queues;
  const auto group = queues.makeGroup();
  for (const QOSClass qos : kClasses) {
    const ScopedQOS scope(qos);
    queues.prompt().asyncInGroup(group, [qos] { EXPECT_EQ(currentQOS(), qos); });
  }
  group->wait();
}

TEST(LinuxWorkQueuesTest, PromptTasksComeFirstAndWhatTheySubmitDoesNot) {
  LinuxWorkQueues queues;
  const auto group = queues.makeGroup();
  const int ours = ::getpriority(PRIO_PROCESS, 0);
  queues.prompt().asyncInGroup(group, [&] {
    EXPECT_EQ(comesFirst(ours), mayRaiseThreads(ours));
    queues.global(QOSClass::standard).asyncInGroup(group, [ours] {
      EXPECT_EQ(::sched_getscheduler(0), SCHED_OTHER);
      EXPECT_EQ(::getpriority(PRIO_PROCESS, 0), ours);
    });
  });
  group->wait();
}

TEST(LinuxWorkQueuesTest, DestructionWaitsForTasksAndWhatTheyStart) {
  std::atomic<int> run = 0;
  {
    LinuxWorkQueues queues;
    const auto serial = queues.makeSerialQueue("serial", QOSClass::utility);
    for (int task = 0; task < 100; ++task) {
      queues.global(QOSClass::standard).async([&queues, &run, serial] {
        queues.global(QOSClass::userInitiated).async([&run, serial] {
          serial->async([&run] { ++run; });
        });
      });
    }
  }
  EXPECT_EQ(run, 100);
}

TEST(LinuxWorkQueuesTest, DestructionDropsDelayedTasks) {
  const auto held = std::make_shared<int>(0);
  {
    LinuxWorkQueues queues;
    queues.makeSerialQueue("serial", QOSClass::utility)->asyncAfter(1h, [held] { FAIL(); });
    EXPECT_EQ(held.use_count(), 2);
  }
  EXPECT_EQ(held.use_count(), 1);
}

TEST(LinuxWorkQueuesDeathTest, AnExceptionThatLeavesATaskEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        LinuxWorkQueues queues;
        queues.global(QOSClass::standard).async([] { throw std::runtime_error("stray"); });
      },
      "stray");
}

}  // namespace
}  // namespace quillsift
