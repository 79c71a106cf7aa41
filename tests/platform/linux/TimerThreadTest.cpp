#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <string>

#include "platform/linux/TimerThread.h"
#include "tests/platform/linux/Gate.h"

namespace quillsift {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

TEST(TimerThreadTest, MakesCallsInTheOrderOfTheirTimes) {
  // A call is due between these two: how long it takes to add one is the machine's affair.
  struct Due {
    steady_clock::time_point earliest, latest;
  };
  TimerThread timers("test");
  Gate done;
  std::map<char, Due> due;
  std::string order;
  const auto add = [&](char call, std::chrono::nanoseconds delay) {
    const auto before = steady_clock::now();
    timers.runAfter(delay, [&order, call] { order += call; });
    const auto counted = std::max(delay, std::chrono::nanoseconds::zero());
    due[call] = {before + counted, steady_clock::now() + counted};
  };
  timers.runAfter(0ns, [&] {
    // All are added before the first of them can be called.
    add('d', 30ms);
    add('b', 10ms);
    add('c', 20ms);
    add('a', -1s);
    add('e', 30ms);
    timers.runAfter(40ms, [&] { done.open(); });
  });
  done.pass();
  ASSERT_EQ(order.size(), 5U) << order;
  for (std::size_t later = 1; later < order.size(); ++later) {
    for (std::size_t sooner = 0; sooner < later; ++sooner)
      EXPECT_GE(due.at(order[later]).latest, due.at(order[sooner]).earliest) << order;
  }
  EXPECT_LT(order.find('d'), order.find('e')) << order;  // of one time, the first to be added
}

TEST(TimerThreadTest, NeverCallsTooEarly) {
  TimerThread timers("test");
  for (const auto delay : {0ms, 1ms, 7ms, 25ms}) {
    Gate done;
    steady_clock::time_point called;
    const auto added = steady_clock::now();
    timers.runAfter(delay, [&] {
      called = steady_clock::now();
      done.open();
    });
    done.pass();
    EXPECT_GE(called - added, delay);
  }
}

TEST(TimerThreadTest, DropsWhatIsNotDueWhenItStops) {
  const auto held = std::make_shared<int>(0);
  std::atomic<bool> called = false;
  {
    TimerThread timers("test");
    timers.runAfter(std::chrono::nanoseconds::max(), [&called, held] { called = true; });
    EXPECT_EQ(held.use_count(), 2);
    timers.stop();
    EXPECT_EQ(held.use_count(), 1);
    timers.runAfter(0ns, [&called, held] { called = true; });
    EXPECT_EQ(held.use_count(), 1);
  }
  EXPECT_FALSE(called);
}

TEST(TimerThreadTest, MayEndInOneOfItsOwnCalls) {
  const auto done = std::make_shared<Gate>();
  auto timers = std::make_shared<TimerThread>("test");
  TimerThread* const raw = timers.get();
  raw->runAfter(0ns, [done, last = std::move(timers)]() mutable {
    last.reset();
    done->open();
  });
  done->pass();
}

}  // namespace
}  // namespace quillsift
