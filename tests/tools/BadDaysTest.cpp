// What can be wrong with a machine, one rule a test, held against every command row of the plan.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <ostream>

#include "tests/tools/PlanRows.h"
#include "tests/tools/ScratchMachine.h"

namespace quillsift::tools {
namespace {

using testing::AnyOf;
using testing::HasSubstr;

constexpr const char* kHostTools[] = {"lsof",
                                      "ps",
                                      "df",
                                      "lsblk",
                                      "blkid",
                                      "findmnt",
                                      "btrfs",
                                      "pvs",
                                      "vgs",
                                      "lvs",
                                      "mdadm",
                                      "sfdisk",
                                      "smartctl",
                                      "efibootmgr",
                                      "bootctl",
                                      "mokutil",
                                      "grub-editenv",
                                      "systemctl",
                                      "systemd-analyze",
                                      "aa-status",
                                      "sestatus",
                                      "auditctl",
                                      "sysctl",
                                      "cryptsetup",
                                      "systemd-cryptenroll",
                                      "tpm2_getcap",
                                      "tpm2_pcrread",
                                      "tpm2_eventlog",
                                      "dmidecode",
                                      "ipmitool",
                                      "lspci",
                                      "edid-decode",
                                      "drm_info",
                                      "eu-stack",
                                      "fw_printenv",
                                      "find",
                                      "ls",
                                      "lsattr",
                                      "getfattr",
                                      "blockdev"};

// Every file that a recipe reads by its name, and one thread of one process.
constexpr const char* kReadFiles[] = {
    "/proc/cmdline",
    "/proc/keys",
    "/proc/modules",
    "/proc/100/task/100/stat",
    "/proc/100/task/100/stack",
    "/proc/100/task/100/wchan",
    "/proc/100/task/100/syscall",
    "/proc/sys/kernel/tainted",
    "/etc/os-release",
    "/usr/lib/os-release",
    "/etc/xdg/mimeapps.list",
    "/usr/share/applications/x.desktop",
    "/sys/firmware/efi/fw_platform_size",
    "/sys/firmware/log",
    "/sys/firmware/efi/esrt/fw_resource_count",
    "/sys/firmware/efi/efivars/x-8be4df61-93ca-11d2-aa0d-00e098032b8c",
    "/sys/kernel/security/lsm",
    "/sys/devices/system/cpu/vulnerabilities/meltdown",
    "/sys/devices/pci0/uevent",
    "/sys/devices/pci0/vendor",
    "/sys/block/sda/size",
    "/sys/class/block/sda/size",
    "/sys/class/tpm/tpm0/tpm_version_major",
    "/sys/class/drm/card0-DP-1/status",
    "/sys/class/drm/card0-DP-1/modes",
    "/sys/class/drm/card0-DP-1/edid",
    "/sys/kernel/debug/dri/0/state",
};

std::vector<CommandRow> textRows() {
  std::vector<CommandRow> rows = commandRows();
  std::erase_if(rows, [](const CommandRow& row) {
    // Archives: the host's tar, whose output is not ours to touch.
    return row.command.program == "/usr/bin/tar" || row.command.program == "/usr/bin/packrat";
  });
  return rows;
}

void expectAnAnswer(const ScratchMachine& machine, const CommandRow& row) {
  SCOPED_TRACE(row.member);
  const RunResult result = machine.run(row.command.program, row.command.arguments);
  EXPECT_THAT(result.exitCode, AnyOf(0, 2, 69, 75, 77)) << result.output.substr(0, 1000);
  EXPECT_NE(result.output, "");
}

TEST(MissingToolsTest, AreSaidInOneLineByEveryRow) {
  const ScratchMachine machine;
  for (const CommandRow& row : commandRows()) {
    if (row.member == "stallscope.txt" || row.member == "guardctl.log" ||
        row.member == "bootmark_info.txt") {
      continue;  // have facts of the kernel to show
    }
    SCOPED_TRACE(row.member);
    const RunResult result = machine.run(row.command.program, row.command.arguments);
    EXPECT_EQ(result.exitCode, 69);
    EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << result.output;
  }
}

TEST(CrashingToolsTest, EndNoRow) {
  ScratchMachine machine;
  for (const char* tool : kHostTools)
    machine.program(tool, "kill -SEGV $$");
  machine.file("/sys/block/sda/size", "1000\n");
  for (const CommandRow& row : textRows()) {
    if (row.member == "/drreg/DrReg.xml") continue;  // runs no tool
    expectAnAnswer(machine, row);
  }
  EXPECT_EQ(machine.run("/bin/df", {"-h"}).output, "df: ended by signal 11\n");
  EXPECT_THAT(machine.run("/usr/sbin/platterctl", {"list"}).output,
              HasSubstr("(lsblk: ended by signal 11)\n"));
}

TEST(BinaryOutputTest, EndsNoRow) {
  ScratchMachine machine;
  for (const char* tool : kHostTools)
    machine.program(tool, "head -c 100000 /dev/urandom; printf '\\0\\n\\0'");
  machine.file("/sys/block/sda/size", "1000\n");
  for (const CommandRow& row : textRows())
    expectAnAnswer(machine, row);
}

TEST(FloodingToolTest, IsCutWhateverItPrints) {
  ScratchMachine machine;
  machine.program("ps", "exec yes " + std::string(1000, 'x'));
  machine.program("lsblk", "exec tr '\\0' x < /dev/zero");  // one line without an end
  const RunResult processes = machine.run("/bin/ps", {"ax"});
  EXPECT_EQ(processes.exitCode, 75);
  EXPECT_THAT(processes.output.substr(processes.output.size() - 500),
              HasSubstr("ps: cut after 67108864 bytes\n"));
  const RunResult disks = machine.run("/usr/sbin/platterctl", {"list"});
  EXPECT_EQ(disks.exitCode, 75);
  EXPECT_THAT(disks.output.substr(disks.output.size() - 500),
              HasSubstr("(lsblk: cut after 67108864 bytes)\n"));
}

// A mounted file system whose server is gone.
TEST(DeadNetworkMountTest, LeavesTheLocalFileSystems) {
  ScratchMachine machine;
  machine.program("df", "case \"$1\" in --local) echo /dev/sda1;; *) exec sleep 1000;; esac");
  const RunResult result = machine.run("/bin/df", {"-h"});
  EXPECT_EQ(result.exitCode, 75);
  EXPECT_EQ(result.output,
            "df: stopped after 10 s\n"
            "A mounted file system does not answer. The local ones:\n"
            "/dev/sda1\n");
}

struct Spoiling {
  const char* name;
  void (*spoil)(ScratchMachine& machine, const std::string& path);
};

void PrintTo(const Spoiling& spoiling, std::ostream* out) {
  *out << spoiling.name;
}

void makeParent(const ScratchMachine& machine, const std::string& path) {
  std::filesystem::create_directories(std::filesystem::path(machine.root() + path).parent_path());
}

class SpoiledFilesTest : public testing::TestWithParam<Spoiling> {};

TEST_P(SpoiledFilesTest, EndNoRow) {
  ScratchMachine machine;
  for (const char* file : kReadFiles) {
    makeParent(machine, file);
    GetParam().spoil(machine, file);
  }
  machine.directory("/sys/class/drm/card0");
  machine.file("/dev/tpm0", "");
  for (const char* tool : kHostTools)
    machine.program(tool, "echo fact");
  for (const CommandRow& row : textRows())
    expectAnAnswer(machine, row);
}

void blockReaders(ScratchMachine& machine, const std::string& path) {
  ASSERT_EQ(::mkfifo((machine.root() + path).c_str(), 0644), 0);
}
void beDirectory(ScratchMachine& machine, const std::string& path) {
  machine.directory(path);
}
void vanish(ScratchMachine& machine, const std::string& path) {
  machine.link(path, machine.root() + path);
}
void beEmpty(ScratchMachine& machine, const std::string& path) {
  machine.file(path, "");
}
void beGarbage(ScratchMachine& machine, const std::string& path) {
  machine.file(path, std::string(1000000, '\xff'));
}
void lie(ScratchMachine& machine, const std::string& path) {
  machine.file(path, "-99999999999999999999 ( ) ) ( = : , \t\n\n[\n");
}
void failToRead(ScratchMachine& machine, const std::string& path) {
  machine.link(path, "/proc/self/mem");
}

INSTANTIATE_TEST_SUITE_P(, SpoiledFilesTest,
                         testing::Values(Spoiling{"Blocking", blockReaders},
                                         Spoiling{"Directories", beDirectory},
                                         Spoiling{"Gone", vanish}, Spoiling{"Empty", beEmpty},
                                         Spoiling{"Garbage", beGarbage}, Spoiling{"Lying", lie},
                                         Spoiling{"Unreadable", failToRead}),
                         [](const auto& parameter) { return parameter.param.name; });

// Nothing of the machine is written to: this user may not.
TEST(ReadOnlyRootTest, IsEnoughForEveryRow) {
  ScratchMachine machine;
  for (const char* tool : kHostTools)
    machine.program(tool, "echo fact");
  machine.becomeOrdinaryUser();
  for (const CommandRow& row : textRows())
    expectAnAnswer(machine, row);
}

// No device database, no service manager, a handful of tools.
TEST(InitialRamDiskTest, StillTellsWhatTheKernelKnows) {
  ScratchMachine machine;
  machine.file("/proc/cmdline", "rdinit=/init\n");
  machine.program("lsblk", "echo 'sda   8:0  disk 10G'");
  machine.program("blkid", "echo '/dev/sda1: TYPE=\"ext4\"'");
  machine.program("ps", "echo 1 init");
  EXPECT_THAT(machine.run("/usr/sbin/platterctl", {"list"}).output, HasSubstr("TYPE=\"ext4\""));
  EXPECT_THAT(machine.run("/usr/sbin/bootmark", {"--info", "--getBoot", "--verbose"}).output,
              HasSubstr("rdinit=/init"));
  EXPECT_THAT(machine.run("/bin/svcherd", {"dumpstate"}).output, HasSubstr("1 init"));
  const RunResult services = machine.run("/bin/svcherd", {"list"});
  EXPECT_EQ(services.exitCode, 69);
  EXPECT_EQ(services.output, "no service manager\n");
}

TEST(ManyProcessesTest, AreSampledWithinTheLimits) {
  constexpr int kProcesses = 50000;
  ScratchMachine machine;
  // All of them are one, under many numbers.
  machine.file("/process/task/1/stat", "1 (a) S 1 1 1 0 -1 4194304 0 0 0 0 0 0 0 0 20 0 1 0 5\n");
  machine.directory("/proc");
  for (int process = 1000; process < 1000 + kProcesses; ++process) {
    const std::string entry = machine.root() + "/proc/" + std::to_string(process);
    ASSERT_EQ(::symlink("../process", entry.c_str()), 0);
  }
  const RunResult result =
      machine.run("/usr/sbin/stallscope", {"-noSymbolicate", "-stdout", "-noFile"});
  EXPECT_THAT(result.exitCode, AnyOf(0, 75));
  EXPECT_THAT(result.output, HasSubstr("Process 1000 (), threads: 1\n"));
  if (result.exitCode == 0) {
    EXPECT_THAT(result.output.substr(0, 1000), HasSubstr("50000 processes, 50000 threads\n"));
  } else {
    EXPECT_THAT(result.output.substr(0, 1000), HasSubstr("time was up"));
  }
}

}  // namespace
}  // namespace quillsift::tools
