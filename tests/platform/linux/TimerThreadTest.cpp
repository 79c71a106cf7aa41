#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "platform/linux/TimerThread.h"
#include "tests/platform/linux/Gate.h"

namespace quillsift {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

TEST(TimerThreadTest, MakesCallsInTheOrderOfTheirTimes) {
  TimerThread timers("test");
  Gate done;
  std::string order;
  timers.runAfter(0ns, [&] {
    // All are added before the first of them can be due.
    timers.runAfter(30ms, [&] { order += "d"; });
    timers.runAfter(10ms, [&] { order += "b"; });
    timers.runAfter(20ms, [&] { order += "c"; });
    timers.runAfter(-1s, [&] { order += "a"; });
    timers.runAfter(30ms, [&] { order += "e"; });
    timers.runAfter(40ms, [&] { done.open(); });
  });
  done.pass();
  EXPECT_EQ(order, "abcde");
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
