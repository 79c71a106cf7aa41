#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/tools/ScratchMachine.h"

namespace quillsift::tools {
namespace {

class HostProgramsTest : public testing::Test {
 protected:
  HostProgramsTest() {
    for (const char* name : {"lsof", "ps", "tar", "find"}) {
      machine_.program(name, "printf '%s\\n' \"$*\"; echo complaint >&2; exit 7");
    }
  }
  ScratchMachine machine_;
};

TEST_F(HostProgramsTest, OpenFilesAreTheHostsList) {
  const RunResult result = machine_.run("/usr/sbin/lsof", {"-n", "+c", "0"});
  EXPECT_EQ(result.exitCode, 7);
  EXPECT_EQ(result.output, "-n +c 0\ncomplaint\n");
}

TEST_F(HostProgramsTest, ThreadsAreAskedForInTheHostsWay) {
  EXPECT_EQ(machine_.run("/bin/ps", {"axMwww", "-o", "ppid,wchan"}).output,
            "axHwww -o pid,lwp -o ppid,wchan\ncomplaint\n");
}

TEST_F(HostProgramsTest, OtherProcessListsStayAsTheyAre) {
  EXPECT_EQ(machine_.run("/bin/ps", {"axwww", "-o", "user"}).output, "axwww -o user\ncomplaint\n");
  EXPECT_EQ(machine_.run("/bin/ps", {}).output, "\ncomplaint\n");
}

TEST_F(HostProgramsTest, AnArchiveHasNoComplaintInIt) {
  const RunResult result = machine_.run("/usr/bin/tar", {"-cf", "-", "-C", "/mnt", "."});
  EXPECT_EQ(result.exitCode, 7);
  EXPECT_EQ(result.output, "--xattrs --acls -cf - -C " + machine_.root() + "/mnt .\n");
}

TEST_F(HostProgramsTest, FindIsTranslatedInThePlansFormOnly) {
  EXPECT_EQ(machine_.run("/usr/bin/find", {"-Px", "/mnt/a b", "-ls"}).output,
            "-P " + machine_.root() + "/mnt/a b -xdev -ls\ncomplaint\n");
  EXPECT_EQ(machine_.run("/usr/bin/find", {"/mnt", "-ls"}).output, "/mnt -ls\ncomplaint\n");
}

TEST_F(HostProgramsTest, DirectoriesOfThePlanAreTheTreesWhereItHasThem) {
  machine_.treeLink("/private/tmp", machine_.root());
  machine_.directory("/A");
  machine_.treeLink("/hidden", "/dev/null");
  const std::string inTree = machine_.tree() + "/private/tmp/A";
  EXPECT_EQ(machine_.run("/usr/bin/tar", {"-cf", "-", "-C", "/private/tmp/A", "."}).output,
            "--xattrs --acls -cf - -C " + inTree + " .\n");
  EXPECT_EQ(machine_.run("/usr/bin/find", {"-Px", "/private/tmp/A", "-ls"}).output,
            "-P " + inTree + " -xdev -ls\ncomplaint\n");
  EXPECT_EQ(machine_.run("/usr/bin/find", {"-Px", "/hidden", "-ls"}).output,
            "-P /hidden -xdev -ls\ncomplaint\n");
}

TEST(MissingHostProgramTest, IsSaidInOneLine) {
  ScratchMachine machine;
  for (const char* path : {"/usr/sbin/lsof", "/bin/ps", "/usr/bin/tar", "/usr/bin/find",
                           "/usr/sbin/sysctl", "/bin/ls"}) {
    const std::string name = std::string(path).substr(std::string(path).rfind('/') + 1);
    const RunResult result = machine.run(path, {"-x"});
    EXPECT_EQ(result.exitCode, 69) << path;
    EXPECT_EQ(result.output, name + " not installed\n");
  }
}

TEST(SystemControlsTest, LeaveOutTheKeys) {
  ScratchMachine machine;
  machine.program("sysctl",
                  "echo \"args = $*\"\n"
                  "echo 'net.ipv4.tcp_fastopen_key = CANARY'\n"
                  "echo 'net.ipv6.conf.all.stable_secret = CANARY'\n"
                  "echo 'net.ipv6.conf.eth0.stable_secret = CANARY'\n"
                  "echo 'kernel.ostype = Linux'");
  const RunResult result = machine.run("/usr/sbin/sysctl", {"-a", "-o"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output, "args = -a -o\nkernel.ostype = Linux\n");
}

// Another user's process: this one may not look into it.
class ListingForOrdinaryUserTest : public testing::Test {
 protected:
  ListingForOrdinaryUserTest() {
    machine_.link("/proc/1/exe", "/sbin/init");
    for (const char* name : {"lsof", "ps"})
      machine_.program(name, "echo fact");
    ::chmod((machine_.root() + "/proc/1").c_str(), 0700);
    machine_.becomeOrdinaryUser();
  }
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: the process has to be somebody else's";
  }
  ScratchMachine machine_;
};

TEST_F(ListingForOrdinaryUserTest, OpenFilesAreNotAll) {
  const RunResult result = machine_.run("/usr/sbin/lsof", {"-n"});
  EXPECT_EQ(result.exitCode, 77);
  EXPECT_EQ(result.output,
            "fact\nnot permitted to this user: the open files of other users' processes\n");
}

TEST_F(ListingForOrdinaryUserTest, ProcessesDoNotTellWhereTheyWait) {
  const RunResult result = machine_.run("/bin/ps", {"axwww", "-o", "pid,wchan"});
  EXPECT_EQ(result.exitCode, 77);
  EXPECT_EQ(result.output, "fact\nnot permitted to this user: where other users' processes wait\n");
  EXPECT_EQ(machine_.run("/bin/ps", {"ax", "-o", "pid"}).exitCode, 0) << "that is all there is";
}

TEST_F(ListingForOrdinaryUserTest, SettingsAreCounted) {
  machine_.program("sysctl",
                   "echo \"sysctl: permission denied on key 'vm.a'\" >&2\n"
                   "echo kernel.ostype = Linux\n"
                   "echo \"sysctl: permission denied on key 'vm.b'\" >&2");
  const RunResult result = machine_.run("/usr/sbin/sysctl", {"-a", "-o"});
  EXPECT_EQ(result.exitCode, 77);
  EXPECT_EQ(result.output, "kernel.ostype = Linux\nnot permitted to this user: 2 settings\n");
}

TEST_F(ListingForOrdinaryUserTest, AToolThatIsRefusedSaysSo) {
  machine_.program("ls", "echo \"ls: cannot open directory '/x': Permission denied\" >&2; exit 2");
  EXPECT_EQ(machine_.run("/bin/ls", {"/x"}).exitCode, 77);
  machine_.program("auditctl", "echo 'You must be root to run this program.'; exit 4");
  const RunResult guards = machine_.run("/usr/bin/guardctl", {"status"});
  EXPECT_EQ(guards.exitCode, 77);
  EXPECT_TRUE(guards.output.ends_with("not permitted to this user: auditctl\n")) << guards.output;
}

TEST_F(ListingForOrdinaryUserTest, StacksAreNotAll) {
  const std::string task = "/proc/100/task/100/";
  machine_.file(task + "stat", "100 (a) S 1 1 1 0 -1 4194304 0 0 0 0 0 0 0 0 20 0 1 0 5\n");
  machine_.file(task + "stack", "[<0>] CANARY\n", 0400);
  const RunResult result = machine_.run("/usr/sbin/stallscope", {"-stdout"});
  EXPECT_EQ(result.exitCode, 77);
  EXPECT_NE(result.output.find("kernel stacks: not permitted to this user for 1 threads\n"),
            std::string::npos);
}

TEST(DeviceWithoutNodeTest, IsNoEncryptedVolumeThatIsNotThere) {
  ScratchMachine machine;
  machine.file("/sys/class/block/sda/size", "8\n");
  machine.file("/sys/class/block/loop0/size", "0\n");
  machine.program("blkid", "exit 2");
  const RunResult result = machine.run("/usr/sbin/vaultkit", {"--list"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output, "no device node for: sda\n");
}

// A device behind a node that may be opened, as in a container.
TEST(RefusedDeviceTest, IsNoEncryptedVolumeThatIsNotThere) {
  ScratchMachine machine;
  machine.file("/dev/sda", "");
  machine.file("/sys/class/block/sda/size", "8\n");
  machine.program("blkid", "exit 2");
  machine.program("blockdev", "echo 'cannot open /dev/sda: Operation not permitted' >&2; exit 1");
  const RunResult result = machine.run("/usr/sbin/vaultkit", {"--list"});
  EXPECT_EQ(result.exitCode, 77);
  EXPECT_EQ(result.output, "not permitted to this user: reading the block devices\n");
}

}  // namespace
}  // namespace quillsift::tools
