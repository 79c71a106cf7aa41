#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/tools/ScratchMachine.h"
#include "tools/Host.h"

namespace quillsift::tools {
namespace {

TEST(HostTest, PrefersTheTreeAndFallsBackToTheMachine) {
  ScratchMachine machine;
  machine.treeFile("/etc/os-release", "NAME=tree");
  EXPECT_EQ(machine.host().resolved("/etc/os-release"), machine.tree() + "/etc/os-release");
  EXPECT_EQ(machine.host().resolved("/etc/fstab"), machine.root() + "/etc/fstab");
}

TEST(HostTest, CountsADanglingLinkAsAbsent) {
  ScratchMachine machine;
  machine.treeLink("/var/log/system.log", "/nowhere/syslog");
  EXPECT_EQ(machine.host().resolved("/var/log/system.log"), machine.root() + "/var/log/system.log");
}

TEST(HostTest, TakesALinkToTheNullDeviceAsHidden) {
  ScratchMachine machine;
  machine.treeLink("/var/log/system.log", "/dev/null");
  EXPECT_EQ(machine.host().resolved("/var/log/system.log"), std::nullopt);
}

TEST(HostTest, FindsOnlyExecutableFilesAsPrograms) {
  ScratchMachine machine;
  machine.program("lsblk", "exit 0");
  machine.program("blkid", "exit 0");
  ::chmod((machine.programs() + "/blkid").c_str(), 0644);
  EXPECT_EQ(machine.host().program("lsblk"), machine.programs() + "/lsblk");
  EXPECT_EQ(machine.host().program("blkid"), std::nullopt);
  EXPECT_EQ(machine.host().program("."), std::nullopt);
}

TEST(HostTest, NeverFindsProgramsOfTheTree) {
  ScratchMachine machine;
  machine.treeFile("/usr/bin/tar", "");
  EXPECT_EQ(machine.host().program("tar"), std::nullopt);
}

TEST(PlatformTreeTest, IsTheStartedPathLessThePlansPath) {
  ScratchMachine machine;
  EXPECT_EQ(platformTreeOf(machine.tree() + "/bin/ls", "/bin/ls", "/nowhere/program"),
            machine.tree());
}

TEST(PlatformTreeTest, StandsBesideTheExecutableWhenStartedByAnotherName) {
  ScratchMachine machine;
  machine.directory("/platform");
  EXPECT_EQ(platformTreeOf("/usr/bin/other", "/bin/ls", machine.root() + "/quillsift-platform"),
            machine.root() + "/platform");
  EXPECT_EQ(platformTreeOf("/usr/bin/other", "/bin/ls", "/nowhere/program"), "");
}

TEST(PlatformTreeTest, DoesNotCountWhenOthersCanWriteToIt) {
  ScratchMachine machine;
  ASSERT_EQ(::chmod(machine.tree().c_str(), 0775), 0);
  EXPECT_EQ(platformTreeOf(machine.tree() + "/bin/ls", "/bin/ls", "/nowhere/program"), "");
}

}  // namespace
}  // namespace quillsift::tools
