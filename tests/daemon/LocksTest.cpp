#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "daemon/SaveLock.h"
#include "daemon/VariablesLock.h"
#include "tests/doubles/TestPlatform.h"

namespace quillsift {
namespace {

class LocksTest : public testing::Test {
 protected:
  TestPlatform platform_;
  std::shared_ptr<SerialQueue> serviceQueue_ =
      platform_.workQueues().makeSerialQueue("service", QOSClass::userInitiated);
  VariablesLock variables_{serviceQueue_};
  SaveLock save_;
};

TEST_F(LocksTest, TheSaveLockIsGivenBackByAnotherThreadThanTheOneThatTookIt) {
  save_.lock();
  EXPECT_TRUE(save_.isHeld());
  EXPECT_FALSE(save_.try_lock());
  std::thread([&] { save_.unlock(); }).join();
  EXPECT_FALSE(save_.isHeld());
  EXPECT_TRUE(save_.try_lock());
  save_.unlock();
}

TEST_F(LocksTest, WaitingUntilTheSaveLockIsFreeDoesNotTakeIt) {
  save_.lock();
  std::atomic<bool> waited = false;
  std::thread waiter([&] {
    save_.waitUntilFree();
    waited = true;
  });
  while (save_.waiters() < 1)
    std::this_thread::yield();
  EXPECT_FALSE(waited);
  save_.unlock();
  waiter.join();
  EXPECT_TRUE(save_.try_lock());
  save_.unlock();
}

TEST_F(LocksTest, EveryWaiterGetsTheSaveLockInTurn) {
  int holders = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      for (int j = 0; j < 100; ++j) {
        save_.lock();
        EXPECT_EQ(++holders, 1);
        --holders;
        save_.unlock();
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
}

using LocksDeathTest = LocksTest;

TEST_F(LocksDeathTest, NobodyWaitsForASaveWithTheVariablesLockHeld) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        VariablesLockHolder lock(variables_);
        save_.waitUntilFree();
      },
      "a save was waited for with the variables lock held");
  EXPECT_DEATH(
      {
        VariablesLockHolder lock(variables_);
        save_.lock();
      },
      "a save was waited for with the variables lock held");
}

// What the compiler would refuse, too.
void lockTwice(VariablesLock& lock) QS_NO_ANALYSIS {
  lock.lock();
  lock.lock();
}

TEST_F(LocksDeathTest, TheVariablesLockIsNotTakenTwiceNorOnTheServiceQueue) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(lockTwice(variables_), "would never be given");
  EXPECT_DEATH(serviceQueue_->sync([&] { VariablesLockHolder lock(variables_); }),
               "would never be given");
}

TEST_F(LocksTest, TryingTheSaveLockWithTheVariablesLockHeldIsAllowed) {
  VariablesLockHolder lock(variables_);
  EXPECT_TRUE(VariablesLock::heldByThisThread());
  EXPECT_TRUE(save_.try_lock());
  save_.unlock();
  lock.unlock();
  EXPECT_FALSE(VariablesLock::heldByThisThread());
  lock.lock();
  EXPECT_TRUE(VariablesLock::heldByThisThread());
}

}  // namespace
}  // namespace quillsift
