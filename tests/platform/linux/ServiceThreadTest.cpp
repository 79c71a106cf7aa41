#include <gtest/gtest.h>

#include <algorithm>

#include "platform/linux/ServiceThread.h"
#include "tests/platform/linux/ThreadPriority.h"

namespace quillsift {
namespace {

TEST(ServiceThreadTest, ComesFirstAndItsThreadsDoNot) {
  const int ours = ::getpriority(PRIO_PROCESS, 0);
  const bool allowed = mayRaiseThreads(ours);
  ServiceThread thread;
  QSError error;
  ASSERT_TRUE(thread.start(&error));
  thread.runAndWait([&] {
    EXPECT_EQ(comesFirst(ours), allowed);
    std::thread([&] {
      EXPECT_EQ(::sched_getscheduler(0), SCHED_OTHER);
      EXPECT_GE(::getpriority(PRIO_PROCESS, 0), std::min(ours, 0));
    }).join();
  });
  thread.stop();
}

TEST(ServiceThreadTest, DropsWhatIsPostedOnceItHasStopped) {
  ServiceThread thread;
  QSError error;
  EXPECT_FALSE(thread.postIfRunning([] { FAIL(); }));
  ASSERT_TRUE(thread.start(&error));
  thread.stop();
  thread.post([] { FAIL(); });
  EXPECT_FALSE(thread.postIfRunning([] { FAIL(); }));
}

}  // namespace
}  // namespace quillsift
