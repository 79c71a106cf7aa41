#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tools/ScratchMachine.h"
#include "tools/Boot.h"

namespace quillsift::tools {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* kBootmark = "/usr/sbin/bootmark";

RunResult reported(const ScratchMachine& machine) {
  return machine.run(kBootmark, {"--info", "--getBoot", "--verbose"});
}

TEST(BootReportTest, SaysThatAMachineHasNoEFI) {
  ScratchMachine machine;
  machine.file("/proc/cmdline", "root=/dev/vda quiet\n");
  machine.program("efibootmgr", "echo must not run");
  const RunResult result = reported(machine);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("root=/dev/vda quiet\n"));
  EXPECT_THAT(result.output, HasSubstr("not an EFI machine\n"));
  EXPECT_THAT(result.output, Not(HasSubstr("must not run")));
  EXPECT_THAT(result.output, HasSubstr("not installed: findmnt\n"));
}

TEST(BootReportTest, MasksSecretsWhereverTheyMayStand) {
  ScratchMachine machine;
  machine.file("/proc/cmdline", "ro rd.luks.key=CANARY provision_token=CANARY rootpass=CANARY\n");
  machine.file("/sys/firmware/efi/fw_platform_size", "64\n");
  machine.file("/boot/grub/grubenv", "");
  machine.program("efibootmgr",
                  "printf 'Boot0000* linux\\tHD(1,GPT,0-1,0x8,0x3e)/File(\\\\vmlinuz)"
                  "t.o.k.e.n.=.C.A.N.A.R.Y.\\n'");
  machine.program("bootctl", "echo options: key=CANARY");
  machine.program("grub-editenv", "echo superpass=CANARY");
  machine.program("findmnt", "echo / //host/share cifs rw,password=CANARY");
  const RunResult result = reported(machine);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("EFI, 64 bits\n"));
  EXPECT_THAT(result.output, HasSubstr("File(\\vmlinuz) token=(masked)\n"));
  EXPECT_THAT(result.output, HasSubstr("superpass=(masked)"));
  EXPECT_THAT(result.output, Not(HasSubstr("CANARY")));
  EXPECT_THAT(result.output, Not(HasSubstr("C.A.N")));
}

TEST(EntryDataTest, KeepsThePathAndCountsBytesThatAreNoText) {
  EXPECT_EQ(withEntryDataMasked("Boot0001* disk\tHD(1,GPT,a-b)/File(\\EFI\\x(1).efi)W.I..\x7f"),
            "Boot0001* disk\tHD(1,GPT,a-b)/File(\\EFI\\x(1).efi) (6 bytes of data)");
}

TEST(EntryDataTest, ShowsTextWithItsSecretsMasked) {
  EXPECT_EQ(withEntryDataMasked("Boot0001* l\tPciRoot(0x0)/Pci(0x1,0x0)/Sata(0,0,0)"
                                "r.o. .k.e.y.=.C.A.N.A.R.Y"),
            "Boot0001* l\tPciRoot(0x0)/Pci(0x1,0x0)/Sata(0,0,0) ro key=(masked)");
}

TEST(EntryDataTest, LeavesOtherLinesAlone) {
  EXPECT_EQ(withEntryDataMasked("BootOrder: 0000,0001"), "BootOrder: 0000,0001");
  EXPECT_EQ(withEntryDataMasked("Boot0001* disk"), "Boot0001* disk");
  EXPECT_EQ(withEntryDataMasked("Boot0001* disk\tHD(1,GPT)/File(\\x)"),
            "Boot0001* disk\tHD(1,GPT)/File(\\x)");
  EXPECT_EQ(withEntryDataMasked("BootNext: x\tHD(1)data"), "BootNext: x\tHD(1)data");
}

TEST(EntryDataTest, HidesTheBytesThatNewerListsShow) {
  EXPECT_THAT(withEntryDataMasked("      data: 43 41 4e 41 52 59"), Not(HasSubstr("43")));
}

TEST(EntryDataTest, TakesAnUnclosedPathForData) {
  EXPECT_THAT(withEntryDataMasked("Boot0001* d\tHD(1,GPT,CANARY"), Not(HasSubstr("CANARY")));
}

}  // namespace
}  // namespace quillsift::tools
