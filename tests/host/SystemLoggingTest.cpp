#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "host/SystemLogging.h"
#include "tests/doubles/TestPlatform.h"

namespace quillsift {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class SystemLoggingTest : public testing::Test {
 protected:
  // Logging that damages errno, as the C library's may.
  class SpoilingLog : public SystemLog {
   public:
    void write(int, const std::string&) override { errno = EBADF; }
  };

  TestPlatform platform_;
  std::unique_ptr<SystemLog> spoiled_ = std::make_unique<SpoilingLog>();
};

TEST_F(SystemLoggingTest, WritesToTheSystemLogAlone) {
  logToSystem(kLogError, "%s: %d", "value", 3);
  writeToSystemLog(kLogInfo, "100%s");
  EXPECT_THAT(platform_.systemLog().lines(),
              ElementsAre(LogLine{115, "value: 3"}, LogLine{118, "100%s"}));
  EXPECT_THAT(platform_.systemConsole().writes(), IsEmpty());
}

TEST_F(SystemLoggingTest, KeepsErrno) {
  Platform::current().systemLog.swap(spoiled_);
  errno = ENODATA;
  logToSystem(kLogError, "message");
  EXPECT_EQ(errno, ENODATA);
  writeToSystemLog(kLogError, "message");
  EXPECT_EQ(errno, ENODATA);
  Platform::current().systemLog.swap(spoiled_);
}

TEST_F(SystemLoggingTest, LosesNoMessageThatCannotBeFormatted) {
  const wchar_t impossible[] = {wchar_t(0x7FFFFFFF), 0};
  logToSystem(kLogError, "name %ls", impossible);
  EXPECT_THAT(platform_.systemLog().messages(), ElementsAre("name %ls"));
}

}  // namespace
}  // namespace quillsift
