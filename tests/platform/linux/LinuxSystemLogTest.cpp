#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "platform/linux/LinuxSystemLog.h"
#include "tests/platform/linux/PrivateDevices.h"

namespace quillsift {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::StartsWith;

constexpr const char* kNoNamespace = "may not make a mount namespace here";

TEST(LinuxSystemLogTest, SendsEachMessageWithItsPriorityWord) {
  const auto records = runWithPrivateDevices(true, [] {
    LinuxSystemLog log;
    log.write(kInstallFacility | kLogError, "one");
    log.write(kInstallFacility | kLogWarning, "two");
    log.write(kInstallFacility | kLogInfo, "three \xC3\xA9");
    return true;
  });
  if (!records) GTEST_SKIP() << kNoNamespace;
  EXPECT_THAT(*records, ElementsAre(AllOf(StartsWith("<115>"), EndsWith(": one")),
                                    AllOf(StartsWith("<116>"), EndsWith(": two")),
                                    AllOf(StartsWith("<118>"), EndsWith(": three \xC3\xA9"))));
}

TEST(LinuxSystemLogTest, NeverTakesAMessageForAFormat) {
  const auto records = runWithPrivateDevices(true, [] {
    LinuxSystemLog().write(kInstallFacility | kLogError, "100%s %n %d%%");
    return true;
  });
  if (!records) GTEST_SKIP() << kNoNamespace;
  EXPECT_THAT(*records, ElementsAre(EndsWith(": 100%s %n %d%%")));
}

TEST(LinuxSystemLogTest, KeepsErrno) {
  const auto records = runWithPrivateDevices(true, [] {
    errno = ENODATA;
    LinuxSystemLog().write(kInstallFacility | kLogError, "message");
    return errno == ENODATA;
  });
  if (!records) GTEST_SKIP() << kNoNamespace;
  EXPECT_EQ(records->size(), 1u);
}

TEST(LinuxSystemLogTest, GoesOnWithoutALogger) {
  const auto records = runWithPrivateDevices(false, [] {
    errno = ENODATA;
    LinuxSystemLog().write(kInstallFacility | kLogError, "message");
    return errno == ENODATA;
  });
  if (!records) GTEST_SKIP() << kNoNamespace;
}

}  // namespace
}  // namespace quillsift
