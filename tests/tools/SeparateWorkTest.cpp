#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <string>
#include <vector>

#include "tools/SeparateWork.h"

namespace quillsift::tools {
namespace {

using namespace std::chrono_literals;

SeparateWork::Clock::time_point soon() {
  return SeparateWork::Clock::now() + 30s;  // against hangs only
}

const Account kSelf{::geteuid(), ::getegid()};

TEST(SeparateWorkTest, GivesWhatWasWritten) {
  SeparateWork work(kSelf, [](Output& output) {
    output.write("result");
    return true;
  });
  EXPECT_EQ(work.result(soon()), "result");
}

TEST(SeparateWorkTest, HasNoResultWhenItFails) {
  for (const SeparateWork::Work& each : std::vector<SeparateWork::Work>{
           [](Output& output) {
             output.write("half a result");
             return false;
           },
           [](Output&) -> bool { throw std::bad_alloc(); },
           [](Output&) -> bool { ::_exit(3); },
           [](Output&) -> bool {
             ::raise(SIGKILL);
             return true;
           },
       }) {
    SeparateWork work(kSelf, each);
    EXPECT_EQ(work.result(soon()), std::nullopt);
  }
}

TEST(SeparateWorkTest, IsNotWaitedForLongerThanTold) {
  SeparateWork work(kSelf, [](Output&) -> bool {
    for (;;)
      ::pause();
  });
  EXPECT_EQ(work.result(SeparateWork::Clock::now() + 50ms), std::nullopt);
  EXPECT_EQ(work.result(SeparateWork::Clock::now()), std::nullopt);
}

TEST(SeparateWorkTest, HasNoResultThatIsTooLong) {
  SeparateWork work(kSelf, [](Output& output) {
    for (std::size_t written = 0; written <= SeparateWork::kMostBytes; written += 1024)
      output.write(std::string(1024, 'x'));
    return true;
  });
  EXPECT_EQ(work.result(soon()), std::nullopt);
}

TEST(SeparateWorkTest, HasTheRightsOfTheAccount) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to become somebody else";
  SeparateWork work({4711, 4712}, [](Output& output) {
    output.print("%u %u %d", ::getuid(), ::getegid(), ::getgroups(0, nullptr));
    return ::setuid(0) != 0;
  });
  EXPECT_EQ(work.result(soon()), "4711 4712 0");
}

TEST(SeparateWorkTest, HasNoDescriptorsOfOthers) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  SeparateWork work(kSelf, [&](Output&) {
    struct stat status {};
    return ::fstat(std::max(ends[0], ends[1]), &status) != 0;
  });
  EXPECT_TRUE(work.result(soon()));
  ::close(ends[0]);
  ::close(ends[1]);
}

}  // namespace
}  // namespace quillsift::tools
