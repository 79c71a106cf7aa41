#include <gtest/gtest.h>

#include "tests/tools/ScratchMachine.h"
#include "tools/ExitCodes.h"
#include "tools/Report.h"

namespace quillsift::tools {
namespace {

class ReportTest : public testing::Test {
 protected:
  std::string printed() {
    output_.flush();
    return pipe_.printed();
  }

  ScratchMachine machine_;
  OutputPipe pipe_;
  Output output_{pipe_.writing()};
  const Host host_ = machine_.host();
  Invocation invocation_{"/usr/sbin/report", {}, host_, output_};
  Report report_{invocation_};
};

TEST_F(ReportTest, TitlesEachToolAndNamesWhatIsMissing) {
  machine_.program("one", "echo first");
  machine_.program("two", "echo second; exit 4");
  report_.tool({.program = "one", .arguments = {"-a"}});
  report_.tool({.program = "absent"});
  report_.tool({.program = "two"});
  report_.tool({.program = "absent"});
  EXPECT_EQ(report_.finish(), 0);
  EXPECT_EQ(printed(),
            "== one -a ==\nfirst\n\n== two ==\nsecond\n(two: exit code 4)\n\n"
            "not installed: absent\n");
}

TEST_F(ReportTest, SaysWhenAToolPrintedNothing) {
  machine_.program("quiet", "exit 2");
  report_.tool({.program = "quiet", .silentExitCode = 2});
  EXPECT_EQ(report_.finish(), 0);
  EXPECT_EQ(printed(), "== quiet ==\n(no output)\n");
}

TEST_F(ReportTest, EndsWithTheTimeLimitsCode) {
  machine_.program("slow", "exec sleep 1000");
  report_.tool({.program = "slow", .limit = std::chrono::milliseconds(200)});
  EXPECT_EQ(report_.finish(), kExitTimeLimit);
  EXPECT_EQ(printed(), "== slow ==\n(slow: stopped after 0.2 s)\n");
}

TEST_F(ReportTest, IsNotHereWhenNoToolIs) {
  report_.tool({.program = "absent"});
  report_.tool({.program = "missing"});
  EXPECT_EQ(report_.finish(), kExitNotHere);
  EXPECT_EQ(printed(), "not installed: absent, missing\n");
}

TEST_F(ReportTest, IsNotPermittedWhenThatIsAllThatIsMissing) {
  report_.notPermitted("reading the disks");
  EXPECT_EQ(report_.finish(), kExitNotPermitted);
  EXPECT_EQ(printed(), "not permitted to this user: reading the disks\n");
}

}  // namespace
}  // namespace quillsift::tools
