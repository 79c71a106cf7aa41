#include <gmock/gmock.h>

#include <csignal>
#include <cstring>
#include <optional>
#include <string>

#include "host/QSUtilities.h"
#include "tests/doubles/TestPlatform.h"

namespace quillsift {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ProcessTerminationTest : public testing::Test {
 protected:
  bool stop(const std::optional<std::string>& name) {
    error_ = QSError();
    return QSUtilities::killProcessesWithName(name, &error_);
  }
  // Fails with an error of the POSIX domain.
  void expectFailure(const std::optional<std::string>& name, int code,
                     const std::string& description) {
    EXPECT_FALSE(stop(name));
    EXPECT_EQ(error_.domain, "POSIX");
    EXPECT_EQ(error_.code, code);
    EXPECT_EQ(error_.localizedDescription, description);
    EXPECT_FALSE(QSUtilities::killProcessesWithName(name, nullptr));
  }
  void expectPartly(const std::string& description, std::vector<std::string> errors) {
    EXPECT_EQ(error_.domain, "QSKillProcessErrorDomain");
    EXPECT_EQ(error_.code, 1);
    EXPECT_EQ(error_.localizedDescription, description);
    std::vector<std::string> found;
    for (const QSError& error : error_.errors) {
      EXPECT_EQ(error.domain, "POSIX");
      EXPECT_EQ(error.code, EPERM);
      found.push_back(error.localizedDescription.value_or(""));
    }
    EXPECT_EQ(found, errors);
  }
  FakeProcessTable& table() { return platform_.processTable(); }
  std::vector<LogLine> lines() { return platform_.systemLog().lines(); }

  TestPlatform platform_;
  QSError error_;
};

TEST_F(ProcessTerminationTest, WantsAName) {
  expectFailure(std::nullopt, EINVAL, "processName is nil");
  EXPECT_THAT(table().calls, IsEmpty());
}

TEST_F(ProcessTerminationTest, SaysWhyThereIsNoTable) {
  table().lengthError = EPERM;
  expectFailure("a", EPERM, "Failed to get process list size via sysctl");
  table().lengthError = 0;
  table().length = SIZE_MAX / 2 + 1;
  expectFailure("a", ENOMEM, "Failed to allocate memory for process list");
  table().length.reset();
  table().processes = {{7, "a"}};
  table().readErrors = {EIO, EIO};
  expectFailure("a", EIO, "Failed to get process list via sysctl");
}

TEST_F(ProcessTerminationTest, WantsAWholeRecord) {
  expectFailure("a", ESRCH, "No processes found.");
  table().surplusBytes = kProcessRecordLength - 1;
  expectFailure("a", ESRCH, "No processes found.");
}

TEST_F(ProcessTerminationTest, ReadsAgainWhenTheTableHasGrown) {
  table().processes = {{7, "a"}};
  table().readErrors = {ENOMEM, ENOMEM, ENOMEM};
  EXPECT_TRUE(stop("a"));
  EXPECT_THAT(table().calls, ElementsAre("length", "read", "length", "read", "length", "read",
                                         "length", "read", "kill 7 2", "wait 7 3000", "kill 7 0"));
}

TEST_F(ProcessTerminationTest, LeavesOtherNamesAlone) {
  table().processes = {{7, "ab"}, {8, ""}, {9, "A"}};
  expectFailure("a", ESRCH, "No matching processes found for 'a'.");
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(ProcessTerminationTest, KnowsSixteenCharactersOfAName) {
  table().processes = {{7, "sixteen-letters-"}};
  expectFailure("sixteen-letters-x", ESRCH, "No matching processes found for 'sixteen-letters-x'.");
  EXPECT_TRUE(stop("sixteen-letters-"));
}

TEST_F(ProcessTerminationTest, LeavesARecordThatIsNotWholeAlone) {
  table().processes = {{7, "a"}};
  table().surplusBytes = kProcessRecordLength - 1;
  EXPECT_TRUE(stop("a"));
  EXPECT_FALSE(error_);
}

TEST_F(ProcessTerminationTest, StopsAProcessPolitely) {
  table().processes = {{7, "a"}};
  EXPECT_TRUE(stop("a"));
  EXPECT_FALSE(error_);
  EXPECT_THAT(lines(), ElementsAre(LogLine{118, "Sent SIGINT to process 7 (a)\n"},
                                   LogLine{118, "Process 7 (a) exited cleanly after SIGINT\n"}));
  EXPECT_THAT(platform_.systemConsole().writes(), IsEmpty());
}

TEST_F(ProcessTerminationTest, KillsWhatStaysAndCountsItAtOnce) {
  table().processes = {{7, "a", false}};
  EXPECT_TRUE(stop("a"));
  EXPECT_THAT(lines(),
              ElementsAre(LogLine{118, "Sent SIGINT to process 7 (a)\n"},
                          LogLine{118, "Sent SIGKILL to process 7 (a) after SIGINT timeout\n"}));
  EXPECT_EQ(table().calls.back(), "kill 7 9");
}

TEST_F(ProcessTerminationTest, StopsOneAfterTheOther) {
  table().processes = {{9, "a"}, {8, "b"}, {7, "a", false}};
  EXPECT_TRUE(stop("a"));
  EXPECT_THAT(table().calls, ElementsAre("length", "read", "kill 9 2", "wait 9 3000", "kill 9 0",
                                         "kill 7 2", "wait 7 3000", "kill 7 0", "kill 7 9"));
}

TEST_F(ProcessTerminationTest, AProcessThatWasGoneIsNotKilledAndNoError) {
  table().processes = {{7, "a", true, {{SIGINT, ESRCH}}}, {8, "a"}};
  EXPECT_FALSE(stop("a"));
  expectPartly("Killed 1 of 2 matching processes.", {});
  EXPECT_EQ(lines()[0], (LogLine{118, "Process 7 (a) was already gone\n"}));
}

TEST_F(ProcessTerminationTest, ListsWhatFailedForEachProcess) {
  table().processes = {{7, "a", true, {{SIGINT, EPERM}}},
                       {8, "a", false, {{0, EPERM}}},
                       {9, "a", false, {{SIGKILL, EPERM}}},
                       {10, "a"}};
  EXPECT_FALSE(stop("a"));
  const std::string reason = std::strerror(EPERM);
  expectPartly("Killed 1 of 4 matching processes.",
               {"Failed to send SIGINT to process 7: " + reason,
                "Failed to check status of process 8: " + reason,
                "Failed to send SIGKILL to process 9: " + reason});
}

}  // namespace
}  // namespace quillsift
