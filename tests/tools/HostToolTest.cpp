#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>

#include "tests/tools/ScratchMachine.h"
#include "tools/HostTool.h"

namespace quillsift::tools {
namespace {

using testing::HasSubstr;
using testing::Not;
using End = ToolResult::End;

// Runs tools in this very process, into a pipe that no test fills.
class HostToolTest : public testing::Test {
 protected:
  ToolResult run(ToolRequest request) {
    const Host host = machine_.host();
    Output output(pipe_.writing());
    HostTool tools(host, output);
    return tools.run(request);
  }

  std::string printed() { return pipe_.printed(); }

  // What a tool that never ends has printed when its time is up. A busy machine may not even have
  // started it by then; so it gets more and more of it until it has come to print something.
  std::string printedBeforeTheEnd() {
    std::string text;
    for (auto limit = std::chrono::seconds(1); text.empty() && limit < std::chrono::minutes(2);
         limit *= 2) {
      OutputPipe pipe;
      {
        const Host host = machine_.host();
        Output output(pipe.writing());
        HostTool tools(host, output);
        EXPECT_EQ(tools.run({.program = "tool", .limit = limit}).end, End::timedOut);
      }
      text = pipe.printed();
    }
    return text;
  }

  ScratchMachine machine_;
  OutputPipe pipe_;
};

TEST_F(HostToolTest, PassesOnOutputErrorAndExitCode) {
  machine_.program("tool", "echo out; echo err >&2; echo \"$1|$2\"; exit 3");
  const ToolResult result = run({.program = "tool", .arguments = {"a b", "c"}});
  EXPECT_EQ(result.end, End::exited);
  EXPECT_EQ(result.code, 3);
  EXPECT_EQ(printed(), "out\nerr\na b|c\n");
}

TEST_F(HostToolTest, SaysWhenAToolIsNotInstalled) {
  EXPECT_EQ(run({.program = "absent"}).end, End::notInstalled);
  EXPECT_EQ(printed(), "");
}

TEST_F(HostToolTest, DiscardsStandardErrorWhenAsked) {
  machine_.program("tool", "echo err >&2; echo out");
  run({.program = "tool", .discardStandardError = true});
  EXPECT_EQ(printed(), "out\n");
}

TEST_F(HostToolTest, GivesACleanEnvironmentAndNoInput) {
  ::setenv("DEBUGINFOD_URLS", "http://nowhere", 1);
  machine_.program("tool", "cat; env");
  run({.program = "tool"});
  ::unsetenv("DEBUGINFOD_URLS");
  const std::string environment = printed();
  EXPECT_THAT(environment, HasSubstr("LC_ALL=C\n"));
  EXPECT_THAT(environment, HasSubstr("SYSTEMD_PAGER=\n"));
  EXPECT_THAT(environment, HasSubstr("PATH=/usr/sbin:/usr/bin:/sbin:/bin\n"));
  EXPECT_THAT(environment, Not(HasSubstr("DEBUGINFOD")));
}

TEST_F(HostToolTest, HandsOnNoDescriptorButTheThree) {
  constexpr int kStray = 77;
  ASSERT_EQ(::dup2(STDIN_FILENO, kStray), kStray);  // open across an exec
  machine_.program("tool", "ls /proc/$$/fd");
  run({.program = "tool"});
  ::close(kStray);
  const std::string descriptors = printed();
  EXPECT_THAT(descriptors, HasSubstr("0\n1\n"));
  EXPECT_THAT(descriptors, Not(HasSubstr("77")));
}

TEST_F(HostToolTest, EndsAToolAtItsLimitAndKeepsWhatItPrinted) {
  machine_.program("tool", "echo before; exec sleep 1000");
  EXPECT_EQ(printedBeforeTheEnd(), "before\n");
}

TEST_F(HostToolTest, KillsAToolThatIgnoresThePoliteEnd) {
  machine_.program("tool", "trap '' TERM; echo before; while :; do sleep 1000; done");
  EXPECT_EQ(printedBeforeTheEnd(), "before\n");
}

TEST_F(HostToolTest, TellsTheSignalThatEndedATool) {
  machine_.program("tool", "kill -SEGV $$");
  const ToolResult result = run({.program = "tool"});
  EXPECT_EQ(result.end, End::killed);
  EXPECT_EQ(result.code, SIGSEGV);
}

TEST_F(HostToolTest, LeavesNoBackgroundProcessBehind) {
  // The tool ends once the helper runs.
  const std::string fifo = machine_.root() + "/fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  machine_.program("tool", "setsid sh -c 'echo $$ > " + fifo + "; exec sleep 1000' & read id < " +
                               fifo + "; echo $id");
  EXPECT_EQ(run({.program = "tool"}).end, End::exited);
  const pid_t helper = std::stoi(printed());  // the pipe has ended: nobody else holds it
  EXPECT_EQ(::kill(helper, 0), -1);
  EXPECT_EQ(errno, ESRCH);
}

TEST_F(HostToolTest, FiltersLinesAcrossReads) {
  machine_.program("tool", "printf 'keep\\ndr'; printf 'op\\nlast'");
  run({.program = "tool", .filter = [](std::string& line) { return line != "drop"; }});
  EXPECT_EQ(printed(), "keep\nlast\n");
}

TEST_F(HostToolTest, CarriesMoreThanAPipeHolds) {
  machine_.program("tool", "head -c 1000000 /dev/zero");
  const Host host = machine_.host();
  char path[] = "/tmp/quillsift-output-XXXXXX";
  const int file = ::mkostemp(path, O_CLOEXEC);
  ::unlink(path);
  {
    Output output(file);
    HostTool tools(host, output);
    EXPECT_EQ(tools.run({.program = "tool"}).code, 0);
    EXPECT_EQ(output.size(), 1000000U);
  }
  EXPECT_EQ(::lseek(file, 0, SEEK_CUR), 1000000);
  ::close(file);
}

// A stopped recipe is killed without a chance to clean up: its tool must go with it, because the
// collector waits for the end of the output.
TEST(StoppedRecipeTest, TakesItsToolWithIt) {
  ScratchMachine machine;
  const std::string fifo = machine.root() + "/fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  machine.program("sysctl", "echo started > " + fifo + "; exec sleep 1000");
  int output = -1;
  const pid_t recipe = machine.start("/usr/sbin/sysctl", {"-a"}, &output);
  std::string word;
  std::ifstream(fifo) >> word;
  EXPECT_EQ(word, "started");
  EXPECT_EQ(::kill(recipe, SIGKILL), 0);
  EXPECT_EQ(readToEnd(output), "");
  EXPECT_EQ(exitCodeOf(recipe), 128 + SIGKILL);
}

}  // namespace
}  // namespace quillsift::tools
