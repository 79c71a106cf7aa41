#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/OutgoingBudget.h"
#include "platform/linux/OutgoingQueue.h"

namespace quillsift::testing {
namespace {

using ::testing::ElementsAre;

class OutgoingBudgetTest : public ::testing::Test {
 protected:
  OutgoingBudget::AccountPointer open(const std::string& name) {
    return budget_.open([this, name] { givenUp_.push_back(name); });
  }

  OutgoingBudget budget_{100, 250};
  std::vector<std::string> givenUp_;
};

TEST_F(OutgoingBudgetTest, CountsWhatIsChargedAndReleased) {
  const auto account = open("a");
  EXPECT_TRUE(budget_.charge(account, 60));
  EXPECT_TRUE(budget_.charge(account, 40));
  EXPECT_EQ(budget_.total(), 100U);
  budget_.release(account, 70);
  EXPECT_EQ(budget_.total(), 30U);
  budget_.close(account);
  EXPECT_EQ(budget_.total(), 0U);
  EXPECT_TRUE(givenUp_.empty());
}

TEST_F(OutgoingBudgetTest, GivesUpWhoPassesItsOwnBound) {
  const auto account = open("a");
  const auto other = open("b");
  EXPECT_TRUE(budget_.charge(other, 90));
  EXPECT_TRUE(budget_.charge(account, 100));
  EXPECT_FALSE(budget_.charge(account, 1));
  EXPECT_THAT(givenUp_, ElementsAre("a"));
  EXPECT_EQ(budget_.total(), 90U);
  EXPECT_FALSE(budget_.charge(account, 1));
  budget_.release(account, 50);
  EXPECT_EQ(budget_.total(), 90U);
  EXPECT_EQ(givenUp_.size(), 1U);
}

TEST_F(OutgoingBudgetTest, GivesUpWhoHoldsMostWhenAllTogetherPassTheirs) {
  const auto a = open("a");
  const auto b = open("b");
  const auto c = open("c");
  const auto d = open("d");
  EXPECT_TRUE(budget_.charge(a, 60));
  EXPECT_TRUE(budget_.charge(b, 95));
  EXPECT_TRUE(budget_.charge(c, 90));
  EXPECT_TRUE(budget_.charge(d, 10));
  EXPECT_THAT(givenUp_, ElementsAre("b"));
  EXPECT_EQ(budget_.total(), 160U);
}

TEST_F(OutgoingBudgetTest, WhoHoldsMostMayBeTheOneThatIsCharged) {
  const auto a = open("a");
  const auto b = open("b");
  const auto c = open("c");
  EXPECT_TRUE(budget_.charge(a, 80));
  EXPECT_TRUE(budget_.charge(b, 80));
  EXPECT_FALSE(budget_.charge(c, 100));
  EXPECT_THAT(givenUp_, ElementsAre("c"));
}

TEST_F(OutgoingBudgetTest, GivingUpMayUseTheBudget) {
  OutgoingBudget::AccountPointer account;
  account = budget_.open([&] {
    budget_.close(account);
    EXPECT_EQ(budget_.total(), 0U);
    givenUp_.emplace_back("a");
  });
  EXPECT_FALSE(budget_.charge(account, 101));
  EXPECT_THAT(givenUp_, ElementsAre("a"));
}

TEST_F(OutgoingBudgetTest, ManyThreadsMayChargeAtOnce) {
  OutgoingBudget large(1000000, 1000000);
  std::atomic<int> givenUp = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      const auto account = large.open([&] { ++givenUp; });
      for (int round = 0; round < 10000; ++round) {
        if (large.charge(account, 10)) large.release(account, 10);
      }
      large.close(account);
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(large.total(), 0U);
  EXPECT_EQ(givenUp, 0);
}

OutgoingMessage message(std::uint64_t number) {
  return {.kind = OutgoingMessage::Kind::reply, .request = number};
}

TEST(OutgoingQueueTest, KeepsTheOrderAndTheChargeUntilSettled) {
  const auto budget = std::make_shared<OutgoingBudget>(10000, 10000);
  OutgoingQueue queue(budget, [] {});
  EXPECT_TRUE(queue.push(message(1)));
  EXPECT_TRUE(queue.push(message(2)));
  const std::size_t charged = budget->total();
  EXPECT_GT(charged, 0U);
  EXPECT_EQ(queue.pop()->request, 1U);
  EXPECT_EQ(budget->total(), charged);
  queue.settle();
  EXPECT_EQ(budget->total(), charged / 2);
  EXPECT_EQ(queue.pop()->request, 2U);
  EXPECT_EQ(queue.pop(), std::nullopt);
  queue.settle();
  EXPECT_EQ(budget->total(), 0U);
}

TEST(OutgoingQueueTest, TakesNothingOnceClosed) {
  const auto budget = std::make_shared<OutgoingBudget>(10000, 10000);
  OutgoingQueue queue(budget, [] {});
  EXPECT_TRUE(queue.push(message(1)));
  queue.close();
  EXPECT_EQ(budget->total(), 0U);
  EXPECT_FALSE(queue.push(message(2)));
  EXPECT_EQ(queue.pop(), std::nullopt);
}

TEST(OutgoingQueueTest, SaysWhenALotOfMemoryHasBecomeFree) {
  const auto budget = std::make_shared<OutgoingBudget>(std::size_t{1} << 30, std::size_t{1} << 30);
  OutgoingQueue queue(budget, [] {});
  OutgoingMessage large = message(1);
  large.values.emplace_back(std::string(std::size_t{20} << 20, 'x'));
  EXPECT_TRUE(queue.push(std::move(large)));
  EXPECT_TRUE(queue.push(message(2)));
  EXPECT_TRUE(queue.pop());
  EXPECT_FALSE(queue.settle());  // one is left
  EXPECT_TRUE(queue.pop());
  EXPECT_TRUE(queue.settle());
  EXPECT_FALSE(queue.settle());
  EXPECT_TRUE(queue.push(message(3)));
  EXPECT_TRUE(queue.pop());
  EXPECT_FALSE(queue.settle());
}

}  // namespace
}  // namespace quillsift::testing
