#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <latch>
#include <memory>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/linux/ElasticPool.h"
#include "platform/linux/LinuxWorkGroup.h"
#include "tests/platform/linux/Gate.h"
#include "tests/platform/linux/ResourceLimit.h"

namespace quillsift {
namespace {

using namespace std::chrono_literals;

class ElasticPoolTest : public testing::Test {
 protected:
  ~ElasticPoolTest() override { unfinished_->wait(); }

  std::unique_ptr<ElasticPool> makePool(std::size_t threads, std::chrono::nanoseconds idleTime) {
    return std::make_unique<ElasticPool>(
        "test", QOSClass::standard, ElasticPool::Limits{threads, idleTime}, starter_, unfinished_);
  }

  const std::shared_ptr<TimerThread> starter_ = std::make_shared<TimerThread>("test-starter");
  const std::shared_ptr<WorkGroup> unfinished_ = std::make_shared<LinuxWorkGroup>();
};

TEST_F(ElasticPoolTest, HasNoThreadUntilThereIsWork) {
  EXPECT_EQ(makePool(8, 1h)->threadCount(), 0U);
}

TEST_F(ElasticPoolTest, BeginsTasksInOrder) {
  const auto pool = makePool(1, 1h);
  std::vector<int> order;
  for (int task = 0; task < 1000; ++task) {
    pool->submit([&order, task] { order.push_back(task); });
  }
  unfinished_->wait();
  ASSERT_EQ(order.size(), 1000U);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST_F(ElasticPoolTest, GivesEveryBlockedTaskAThreadUpToTheBound) {
  constexpr int kThreads = 20;
  const auto pool = makePool(kThreads, 1h);
  std::latch begun(kThreads);
  Gate release;
  std::atomic<int> late = 0;
  for (int task = 0; task < kThreads; ++task) {
    pool->submit([&] {
      begun.count_down();
      release.pass();
    });
  }
  begun.wait();
  EXPECT_EQ(pool->threadCount(), std::size_t{kThreads});
  for (int task = 0; task < 5; ++task)
    pool->submit([&] { ++late; });
  Gate starterHasSeenThem;
  starter_->runAfter(0ns, [&] { starterHasSeenThem.open(); });
  starterHasSeenThem.pass();
  EXPECT_EQ(pool->threadCount(), std::size_t{kThreads});
  EXPECT_EQ(late, 0);
  release.open();
  unfinished_->wait();
  EXPECT_EQ(late, 5);
}

TEST_F(ElasticPoolTest, KeepsAThreadForTheNextTask) {
  const auto pool = makePool(8, 1h);
  for (int task = 0; task < 50; ++task) {
    pool->submit([] {});
    unfinished_->wait();
  }
  // A task that came before its predecessor's thread was idle again may have got a second one.
  EXPECT_LE(pool->threadCount(), 8U);
  EXPECT_GE(pool->threadCount(), 1U);
}

TEST_F(ElasticPoolTest, ThreadsWithoutWorkEnd) {
  const auto pool = makePool(16, 1ms);
  for (int round = 0; round < 5; ++round) {
    for (int task = 0; task < 100; ++task)
      pool->submit([] {});
    unfinished_->wait();
    while (pool->threadCount() != 0)
      std::this_thread::yield();
  }
}

TEST_F(ElasticPoolTest, LosesNoTaskWhileThreadsComeAndGo) {
  const auto pool = makePool(16, 0ns);
  std::atomic<int> run = 0;
  std::vector<std::thread> submitters;
  for (int submitter = 0; submitter < 4; ++submitter) {
    submitters.emplace_back([&] {
      for (int task = 0; task < 2000; ++task)
        pool->submit([&run] { ++run; });
    });
  }
  for (std::thread& submitter : submitters)
    submitter.join();
  unfinished_->wait();
  EXPECT_EQ(run, 8000);
}

TEST_F(ElasticPoolTest, MayGoInItsOwnLastTask) {
  auto pool = makePool(4, 1h);
  ElasticPool* const raw = pool.get();
  Gate gone;
  raw->submit([&gone, last = std::shared_ptr<ElasticPool>(std::move(pool))]() mutable {
    last.reset();
    gone.open();
  });
  gone.pass();
}

TEST_F(ElasticPoolTest, WhatATaskHoldsIsGoneBeforeItCountsAsFinished) {
  const auto pool = makePool(4, 1h);
  for (int round = 0; round < 100; ++round) {
    const auto held = std::make_shared<int>(0);
    pool->submit([held] {});
    unfinished_->wait();
    EXPECT_EQ(held.use_count(), 1);
  }
}

// Runs in a process of its own, which gives up its privileges: those ignore the limit.
[[noreturn]] void runATaskWhenThereIsAThreadAtLast() {
  const auto starter = std::make_shared<TimerThread>("test-starter");
  const auto unfinished = std::make_shared<LinuxWorkGroup>();
  ElasticPool pool("test", QOSClass::standard, ElasticPool::Limits{8, 1h}, starter, unfinished);
  if (::getuid() == 0 && ::setresuid(65534, 65534, 65534) != 0) std::_Exit(10);
  std::atomic<bool> run = false;
  {
    const ResourceLimit noThreads(RLIMIT_NPROC, 1);
    try {
      std::thread([] {}).join();
      std::_Exit(11);  // the limit does not work here
    } catch (const std::system_error&) {
    }
    pool.submit([&] { run = true; });
    Gate tried;
    starter->runAfter(1ms, [&] { tried.open(); });
    tried.pass();
    if (run || pool.threadCount() != 0) std::_Exit(12);
  }
  unfinished->wait();
  std::_Exit(run ? 0 : 13);
}

TEST_F(ElasticPoolTest, ATaskWaitsForAThreadThatTheHostRefuses) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(runATaskWhenThereIsAThreadAtLast(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace quillsift
