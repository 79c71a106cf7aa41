#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "platform/linux/LinuxProcessTable.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

using std::chrono::milliseconds;

std::map<std::int32_t, std::string> readAll(LinuxProcessTable& table) {
  std::size_t length = 0;
  std::vector<char> bytes;
  // Others start processes meanwhile, on a busy machine more than there is room for.
  int result = -1;
  do {
    EXPECT_EQ(table.readAll(nullptr, &length), 0);
    bytes.resize(length);
    result = table.readAll(bytes.data(), &length);
  } while (result != 0 && errno == ENOMEM);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(length % kProcessRecordLength, 0U);
  std::map<std::int32_t, std::string> processes;
  for (std::size_t at = 0; at < length; at += kProcessRecordLength) {
    std::int32_t process = 0;
    std::memcpy(&process, &bytes[at + kProcessRecordIdentifier], sizeof(process));
    processes[process] = &bytes[at + kProcessRecordName];
  }
  return processes;
}

TEST(LinuxProcessTableTest, MakesARecordOfEveryProcess) {
  const ScratchTree scratch;
  scratch.write("proc/7/comm", "short\n");
  scratch.link("proc/7/exe", "/usr/bin/short");
  scratch.write("proc/19/comm", "a-name-of-fifte\n");
  scratch.link("proc/19/exe", "/opt/a-name-of-fifteen-and-more");
  scratch.write("proc/20/comm", "kworker/0:1\n");
  scratch.write("proc/21/comm", "two\nlines\n");
  scratch.makeDirectory("proc/22");  // gone
  scratch.write("proc/23/comm", "fifteen-letters\n");
  scratch.link("proc/23/exe", "/usr/bin/fifteen-letters (deleted)");  // upgraded meanwhile
  scratch.write("proc/self/comm", "no number\n");
  LinuxProcessTable table(scratch.tree());
  EXPECT_EQ(readAll(table), (std::map<std::int32_t, std::string>{{7, "short"},
                                                                 {19, "a-name-of-fiftee"},
                                                                 {20, "kworker/0:1"},
                                                                 {21, "two\nlines"},
                                                                 {23, "fifteen-letters"}}));
}

TEST(LinuxProcessTableTest, TakesTheExecutablesNameOnlyWhereItFits) {
  EXPECT_EQ(shortCommandName("a-name-of-fifte", "/bin/a-name-of-fifteen"), "a-name-of-fiftee");
  EXPECT_EQ(shortCommandName("renamed", "/bin/a-name-of-fifteen"), "renamed");
  EXPECT_EQ(shortCommandName("sh", "/bin/shell"), "sh");
  EXPECT_EQ(shortCommandName("sh", ""), "sh");
  EXPECT_EQ(shortCommandName("", ""), "");
}

TEST(LinuxProcessTableTest, SaysWhenTheBufferIsTooSmallOrThereIsNoTable) {
  const ScratchTree scratch;
  scratch.write("proc/7/comm", "a\n");
  LinuxProcessTable table(scratch.tree());
  char small[kProcessRecordLength - 1];
  std::size_t length = sizeof(small);
  EXPECT_EQ(table.readAll(small, &length), -1);
  EXPECT_EQ(errno, ENOMEM);

  const ScratchTree none;
  none.link("proc", "/dev/null");
  LinuxProcessTable hidden(none.tree());
  EXPECT_EQ(hidden.readAll(nullptr, &length), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(LinuxProcessTableTest, FindsThisProcessAndStopsAChild) {
  const ScratchTree scratch;
  LinuxProcessTable table(scratch.tree());
  EXPECT_EQ(readAll(table).count(::getpid()), 1U);

  const pid_t child = ::fork();
  if (child == 0) {
    for (;;)
      ::pause();
  }
  table.waitForExit(child, milliseconds(1));  // it does not end by itself
  EXPECT_EQ(table.sendSignal(child, 0), 0);
  EXPECT_EQ(table.sendSignal(child, SIGKILL), 0);
  table.waitForExit(child, std::chrono::minutes(1));
  siginfo_t status{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &status, WEXITED | WNOHANG), 0);
  EXPECT_EQ(status.si_pid, child);
  table.waitForExit(child, std::chrono::minutes(1));  // gone
  EXPECT_EQ(table.sendSignal(child, 0), -1);
  EXPECT_EQ(errno, ESRCH);
}

}  // namespace
}  // namespace quillsift
