#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tools/ScratchMachine.h"

namespace quillsift::tools {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;

constexpr const char* kFwlogdump = "/usr/libexec/fwlogdump";

TEST(FirmwareLogsTest, SaysWhenThereAreNone) {
  ScratchMachine machine;
  machine.program("dmidecode", "echo must not run: it would search the memory");
  machine.program("ipmitool", "echo must not run");
  const RunResult result = machine.run(kFwlogdump, {});
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_EQ(result.output, "this machine offers no firmware log\n");
}

TEST(FirmwareLogsTest, ShowsEachSourceThatIsThere) {
  ScratchMachine machine;
  machine.file("/sys/firmware/log", "\0\0first line\nlast line\n\0\0"s);
  machine.file("/sys/firmware/dmi/tables/DMI", "x");
  machine.file("/sys/kernel/security/tpm0/binary_bios_measurements", "x");
  machine.file("/sys/firmware/efi/esrt/fw_resource_count", "1\n");
  machine.file("/sys/firmware/efi/esrt/entries/entry0/fw_type", "2\n");
  machine.file("/dev/ipmi0", "");
  machine.program("dmidecode", "echo dmidecode \"$@\"");
  machine.program("tpm2_eventlog", "echo eventlog \"$@\"");
  machine.program("ipmitool", "echo ipmitool \"$@\"");
  const RunResult result = machine.run(kFwlogdump, {});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("== /sys/firmware/log ==\nfirst line\nlast line\n\n=="));
  EXPECT_THAT(result.output, HasSubstr("dmidecode -t 15\n"));
  EXPECT_THAT(result.output, HasSubstr("eventlog " + machine.root() + "/sys/kernel/security/tpm0"));
  EXPECT_THAT(result.output, HasSubstr("entries/entry0/fw_type = 2\nfw_resource_count = 1\n"));
  EXPECT_THAT(result.output, HasSubstr("ipmitool sel elist\n"));
}

TEST(FirmwareLogsTest, TellWhatTheUserMayNotRead) {
  ScratchMachine machine;
  machine.file("/sys/firmware/log", "CANARY", 0000);
  machine.becomeOrdinaryUser();
  const RunResult result = machine.run(kFwlogdump, {});
  EXPECT_EQ(result.exitCode, 77);
  EXPECT_EQ(result.output, "not permitted to this user: /sys/firmware/log\n");
}

}  // namespace
}  // namespace quillsift::tools
