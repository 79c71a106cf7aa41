#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "platform/WorkQueues.h"

namespace quillsift {
namespace {

class CountingGroup : public WorkGroup {
 public:
  void enter() override { ++members; }
  void leave() override {
    --members;
    if (onLeave) onLeave();
  }
  void wait() override {}
  bool waitFor(std::chrono::nanoseconds) override { return members == 0; }

  int members = 0;
  std::function<void()> onLeave;
};

// Runs its tasks when it is told to.
class HeldQueue : public WorkQueue {
 public:
  void async(Task task) override { tasks.push_back(std::move(task)); }

  std::vector<Task> tasks;
};

class WorkQueueTest : public testing::Test {
 protected:
  const std::shared_ptr<CountingGroup> group_ = std::make_shared<CountingGroup>();
  HeldQueue queue_;
};

TEST_F(WorkQueueTest, ATaskIsAMemberFromItsSubmissionToItsEnd) {
  int membersInside = -1;
  queue_.asyncInGroup(group_, [&] { membersInside = group_->members; });
  EXPECT_EQ(group_->members, 1);
  queue_.tasks[0]();
  EXPECT_EQ(membersInside, 1);
  EXPECT_EQ(group_->members, 0);
}

TEST_F(WorkQueueTest, EveryTaskIsAMemberOfItsOwn) {
  queue_.asyncInGroup(group_, [] {});
  queue_.asyncInGroup(group_, [] {});
  EXPECT_EQ(group_->members, 2);
  queue_.tasks[1]();
  EXPECT_EQ(group_->members, 1);
  queue_.tasks[0]();
  EXPECT_EQ(group_->members, 0);
}

TEST_F(WorkQueueTest, ATaskThatThrowsLeavesTheGroupAndPassesTheExceptionOn) {
  queue_.asyncInGroup(group_, [] { throw std::runtime_error("thrown"); });
  EXPECT_THROW(queue_.tasks[0](), std::runtime_error);
  EXPECT_EQ(group_->members, 0);
}

TEST_F(WorkQueueTest, WhatATaskHoldsIsGoneBeforeTheGroupIsLeft) {
  auto held = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = held;
  bool goneBefore = false;
  group_->onLeave = [&] { goneBefore = watched.expired(); };
  queue_.asyncInGroup(group_, [held] {});
  held.reset();
  EXPECT_FALSE(watched.expired());
  queue_.tasks[0]();
  EXPECT_TRUE(goneBefore);
}

TEST_F(WorkQueueTest, ATaskThatIsDroppedUnrunLeavesTheGroupToo) {
  queue_.asyncInGroup(group_, [] {});
  queue_.tasks.clear();
  EXPECT_EQ(group_->members, 0);
}

TEST_F(WorkQueueTest, ACopyOfTheTaskDoesNotLeaveTwice) {
  queue_.asyncInGroup(group_, [] {});
  {
    const Task copy = queue_.tasks[0];
    EXPECT_EQ(group_->members, 1);
  }
  EXPECT_EQ(group_->members, 1);
  queue_.tasks[0]();
  EXPECT_EQ(group_->members, 0);
}

}  // namespace
}  // namespace quillsift
