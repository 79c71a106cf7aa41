#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tools/ScratchMachine.h"
#include "tools/Services.h"

namespace quillsift::tools {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* kSvcherd = "/bin/svcherd";

TEST(ServiceListTest, IsTheServiceManagersWhenItRuns) {
  ScratchMachine machine;
  machine.directory("/run/systemd/system");
  machine.file("/etc/init.d/cron", "");
  machine.program("systemctl", "echo \"$@\"");
  const RunResult result = machine.run(kSvcherd, {"list"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("list-units --all --plain --no-pager"));
  EXPECT_THAT(result.output, Not(HasSubstr("cron")));
}

TEST(ServiceListTest, IsTheScriptsOtherwiseWithoutRunningThem) {
  ScratchMachine machine;
  machine.file("/etc/init.d/cron", "#!/bin/sh\necho must not run\n", 0755);
  machine.link("/etc/rc2.d/S01cron", "../init.d/cron");
  machine.link("/etc/rc3.d/S01cron", "../init.d/cron");
  machine.link("/etc/rc0.d/K01cron", "../init.d/cron");
  machine.directory("/etc/sv/getty");
  machine.program("systemctl", "echo must not run");
  const RunResult result = machine.run(kSvcherd, {"list"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, testing::ContainsRegex("cron +23\n"));
  EXPECT_THAT(result.output, HasSubstr("== /etc/sv ==\ngetty\n"));
  EXPECT_THAT(result.output, Not(HasSubstr("must not run")));
}

// Device units are named after links of udev, and those by identifier hold serial numbers.
TEST(ServiceListTest, MasksIdentifiersOfDisks) {
  ScratchMachine machine;
  machine.directory("/run/systemd/system");
  machine.program(
      "systemctl",
      "printf '%s\\n' 'dev-disk-by\\x2did-nvme\\x2dQEMU_CANARY_1\\x2dpart2.device loaded' "
      "'dev-sda.device loaded'");
  const RunResult result = machine.run(kSvcherd, {"list"});
  EXPECT_THAT(result.output, HasSubstr("dev-disk-by\\x2did-(masked).device loaded\n"));
  EXPECT_THAT(result.output, HasSubstr("dev-sda.device loaded\n"));
  EXPECT_THAT(result.output, Not(HasSubstr("CANARY")));
}

TEST(ServiceDumpTest, MasksIdentifiersOfDisks) {
  ScratchMachine machine;
  machine.directory("/run/systemd/system");
  machine.program("systemd-analyze",
                  "printf '%s\\n' '-> Unit dev-disk-by\\x2did-usb\\x2dDISK_CANARY\\x2d0:0.device:' "
                  "'\tDevice Path: /dev/disk/by-id/usb-DISK_CANARY-0:0' "
                  "'\tWhat: /dev/disk/by-id/CANARY, /dev/disk/by-id/CANARY-part1 kept' "
                  "'\tDevice Path: /dev/disk/by-uuid/kept-too'");
  const RunResult result = machine.run(kSvcherd, {"dumpstate"});
  EXPECT_THAT(result.output, HasSubstr("-> Unit dev-disk-by\\x2did-(masked).device:\n"));
  EXPECT_THAT(result.output,
              HasSubstr("/dev/disk/by-id/(masked), /dev/disk/by-id/(masked) kept\n"));
  EXPECT_THAT(result.output, HasSubstr("by-uuid/kept-too"));
  EXPECT_THAT(result.output, Not(HasSubstr("CANARY")));
}

TEST(ServiceListTest, SaysWhenThereIsNoServiceManager) {
  ScratchMachine machine;
  const RunResult result = machine.run(kSvcherd, {"list"});
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_EQ(result.output, "no service manager\n");
}

TEST(ServiceDumpTest, DropsEnvironmentsAndMasksArguments) {
  ScratchMachine machine;
  machine.directory("/run/systemd/system");
  machine.program("systemd-analyze",
                  "printf -- '-> Unit a.service:\\n"
                  "\\tDescription: kept one\\n"
                  "\\tEnvironment: WORD=CANARY\\n"
                  "second line CANARY\\n"
                  "\\tExecStart: /bin/a --token=CANARY\\n"
                  "\\t\\tSetCredential: x:CANARY\\n"
                  "\\tUMask: kept two\\n'");
  const RunResult result = machine.run(kSvcherd, {"dumpstate"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("\tDescription: kept one\n"));
  EXPECT_THAT(result.output, HasSubstr("\tExecStart: /bin/a --token=(masked)\n\tUMask: kept two"));
  EXPECT_THAT(result.output, Not(HasSubstr("CANARY")));
}

TEST(ServiceDumpTest, ListsProcessesWithoutAServiceManager) {
  ScratchMachine machine;
  machine.program("ps", "echo \"$@\"; echo daemon --password CANARY");
  const RunResult result = machine.run(kSvcherd, {"dumpstate"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("-e -ww -o pid,ppid,sid,stat,etime,cgroup,args\n"));
  EXPECT_THAT(result.output, HasSubstr("daemon --password (masked)\n"));
}

}  // namespace
}  // namespace quillsift::tools
