#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "platform/linux/LinuxWorkGroup.h"
#include "platform/linux/LinuxWorkQueues.h"
#include "tests/platform/linux/Gate.h"

namespace quillsift {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

TEST(LinuxWorkGroupTest, AnEmptyGroupIsNotWaitedFor) {
  LinuxWorkGroup group;
  group.wait();
  EXPECT_TRUE(group.waitFor(std::chrono::nanoseconds::max()));
  EXPECT_TRUE(group.waitFor(-1s));
}

TEST(LinuxWorkGroupTest, ATimedWaitEndsWithMembersLeft) {
  LinuxWorkGroup group;
  group.enter();
  const auto begin = steady_clock::now();
  EXPECT_FALSE(group.waitFor(20ms));
  EXPECT_GE(steady_clock::now() - begin, 20ms);
  EXPECT_FALSE(group.waitFor(0ns));
  EXPECT_FALSE(group.waitFor(-1s));
  group.leave();
  EXPECT_TRUE(group.waitFor(0ns));
}

TEST(LinuxWorkGroupTest, AWaitEndsWhenTheLastMemberLeaves) {
  LinuxWorkGroup group;
  group.enter();
  group.enter();
  std::thread leaving([&] {
    group.leave();
    group.leave();
  });
  EXPECT_TRUE(group.waitFor(std::chrono::nanoseconds::max()));
  leaving.join();
}

TEST(LinuxWorkGroupTest, AMemberMayJoinWhileOthersWait) {
  LinuxWorkQueues queues;
  const auto group = queues.makeGroup();
  Gate joined;
  Gate release;
  bool lateMemberDone = false;
  queues.global(QOSClass::standard).asyncInGroup(group, [&] {
    queues.global(QOSClass::standard).asyncInGroup(group, [&] {
      joined.open();
      release.pass();
      lateMemberDone = true;
    });
  });
  joined.pass();  // the first member may have left by now, the late one has not
  EXPECT_FALSE(group->waitFor(1ms));
  release.open();
  group->wait();
  EXPECT_TRUE(lateMemberDone);
}

TEST(LinuxWorkGroupTest, AWaiterSeesThatTheGroupWasEmptyForAMoment) {
  LinuxWorkGroup group;
  group.enter();
  std::thread waiting([&] { group.wait(); });
  // Empties and refills the group until the waiter has seen it, which no instant is too short for.
  Gate seen;
  std::thread refilling([&] {
    while (!seen.isOpen()) {
      group.leave();
      group.enter();
    }
  });
  waiting.join();
  seen.open();
  refilling.join();
  EXPECT_FALSE(group.waitFor(0ns));
}

TEST(LinuxWorkGroupTest, LeavingAnEmptyGroupAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(LinuxWorkGroup().leave(), "left more often than entered");
}

}  // namespace
}  // namespace quillsift
