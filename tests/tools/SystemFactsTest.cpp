// relquery, modtally, guardctl and regtally: listings made of this system's own files.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tools/ScratchMachine.h"
#include "tools/OperatingSystem.h"

namespace quillsift::tools {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

TEST(ReleaseTest, NamesProductVersionBuildAndKernel) {
  ScratchMachine machine;
  machine.file("/etc/os-release", "NAME=\"Rescue OS\"\nVERSION_ID=12\nBUILD_ID='2E99'\n");
  const RunResult result = machine.run("/usr/bin/relquery", {});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, StartsWith("ProductName:    Rescue OS\n"
                                        "ProductVersion: 12\n"
                                        "BuildVersion:   2E99\n"
                                        "Kernel:         Linux "));
}

TEST(ReleaseTest, TakesTheTreesFileFirstAndTheVendorsLast) {
  ScratchMachine machine;
  machine.file("/usr/lib/os-release", "NAME=vendor\n");
  EXPECT_THAT(machine.run("/usr/bin/relquery", {}).output, HasSubstr(" vendor\n"));
  machine.file("/etc/os-release", "NAME=host\n");
  EXPECT_THAT(machine.run("/usr/bin/relquery", {}).output, HasSubstr(" host\n"));
  machine.treeFile("/etc/os-release", "NAME=tree\n");
  EXPECT_THAT(machine.run("/usr/bin/relquery", {}).output, HasSubstr(" tree\n"));
}

TEST(ReleaseTest, SaysWhatIsAbsent) {
  ScratchMachine machine;
  EXPECT_EQ(machine.run("/usr/bin/relquery", {}).output, "no os-release\n");
  EXPECT_EQ(machine.run("/usr/bin/relquery", {}).exitCode, 69);
  machine.file("/etc/os-release", "NAME=x\nBUILD_ID=\nIMAGE_VERSION=7\n");
  EXPECT_THAT(machine.run("/usr/bin/relquery", {}).output,
              HasSubstr("ProductVersion: (null)\nBuildVersion:   7\n"));
}

TEST(OperatingSystemTest, ReadsValuesAsAShellDoes) {
  const auto settings =
      parsedOperatingSystem("# A=1\n\nB=\"a \\\"b\\\" \\$c\"\n  C='d\\e'\nD=f\\ g\nnothing\nE=");
  EXPECT_EQ(settings.at("B"), "a \"b\" $c");
  EXPECT_EQ(settings.at("C"), "d\\e");
  EXPECT_EQ(settings.at("D"), "f g");
  EXPECT_EQ(settings.at("E"), "");
  EXPECT_EQ(settings.size(), 4U);
}

TEST(ModulesTest, ListsLoadedOnesWithoutTheirAddresses) {
  ScratchMachine machine;
  machine.file("/proc/modules",
               "loop 32768 2 dm_x,dm_y, Live 0xffffffffc0ca0000\n"
               "crc32 16384 0 - Live 0xffffffffc0ca0000\n");
  machine.file("/sys/module/loop/version", "1.5\n");
  const RunResult result = machine.run("/usr/sbin/modtally", {});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, testing::ContainsRegex("loop +32768 +2 +1\\.5 +dm_x,dm_y\n"));
  EXPECT_THAT(result.output, testing::ContainsRegex("crc32 +16384 +0"));
  EXPECT_THAT(result.output, Not(HasSubstr("ffffc0ca")));
}

TEST(ModulesTest, ListsBuiltInOnesWhereNoneCanBeLoaded) {
  ScratchMachine machine;
  machine.file("/sys/module/vt/parameters/a", "");
  machine.file("/sys/module/vt/parameters/b", "");
  const RunResult result = machine.run("/usr/sbin/modtally", {});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, testing::ContainsRegex("vt +2"));
}

TEST(ModulesTest, SaysWhenThereIsNoList) {
  ScratchMachine machine;
  const RunResult result = machine.run("/usr/sbin/modtally", {});
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_EQ(result.output, "no list of modules in this kernel\n");
}

TEST(GuardsTest, SaysThatSecurityFilesAreMissingAndGoesOn) {
  ScratchMachine machine;
  machine.file("/proc/sys/kernel/tainted", "0\n");
  machine.program("sestatus", "echo disabled");
  const RunResult result = machine.run("/usr/bin/guardctl", {"status"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("securityfs not mounted\n"));
  EXPECT_THAT(result.output, HasSubstr("kernel.tainted = 0\n"));
  EXPECT_THAT(result.output, HasSubstr("== sestatus ==\ndisabled\n"));
  EXPECT_THAT(result.output, HasSubstr("== secure boot ==\nnot an EFI machine\n"));
  EXPECT_THAT(result.output, HasSubstr("not installed: aa-status, auditctl\n"));
}

TEST(GuardsTest, ShowsModulesAndVulnerabilities) {
  ScratchMachine machine;
  machine.file("/sys/kernel/security/lsm", "lockdown,apparmor");
  machine.file("/sys/kernel/security/lockdown", "[none] integrity\n");
  machine.file("/sys/devices/system/cpu/vulnerabilities/mds", "Not affected\n");
  const RunResult result = machine.run("/usr/bin/guardctl", {"status"});
  EXPECT_THAT(result.output, HasSubstr("lsm: lockdown,apparmor\nlockdown: [none] integrity\n"));
  EXPECT_THAT(result.output, HasSubstr("mds: Not affected\n"));
}

constexpr const char* kRegtally =
    "/System/Library/Frameworks/Groundwork.framework/Frameworks/Openhand.framework/Support/"
    "regtally";

TEST(ApplicationsTest, ShowsTheEntryGroupAlone) {
  ScratchMachine machine;
  machine.file("/usr/share/applications/menu/edit.desktop",
               "[Desktop Entry]\nName=Edit\nName[de]=Tippen\nExec=edit %F\nIcon=x\n"
               "[Desktop Action New]\nName=Other\n");
  machine.file("/usr/share/dbus-1/services/a.b.service",
               "[D-BUS Service]\nName=a.b\nExec=/usr/bin/ab\nUser=root\n");
  machine.file("/etc/xdg/mimeapps.list", "[Default Applications]\ntext/plain=edit.desktop\n");
  const RunResult result = machine.run(kRegtally, {"-bdump"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("edit.desktop\n    Name=Edit\n    Exec=edit %F\n"));
  EXPECT_THAT(result.output, HasSubstr("a.b.service\n    Name=a.b\n    Exec=/usr/bin/ab\n"));
  EXPECT_THAT(result.output, HasSubstr("    text/plain=edit.desktop\n"));
  EXPECT_THAT(result.output, Not(HasSubstr("Other")));
  EXPECT_THAT(result.output, Not(HasSubstr("Tippen")));
}

TEST(ApplicationsTest, SaysWhenThereAreNone) {
  ScratchMachine machine;
  const RunResult result = machine.run(kRegtally, {"-bdump"});
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_EQ(result.output, "no application registry\n");
}

}  // namespace
}  // namespace quillsift::tools
