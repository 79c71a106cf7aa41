#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tools/ScratchMachine.h"

namespace quillsift::tools {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* kPlatterctl = "/usr/sbin/platterctl";

TEST(DiskListTest, ShowsBothListingsAndAsksForNoSerialNumbers) {
  ScratchMachine machine;
  machine.program("lsblk", "echo lsblk: \"$@\"");
  machine.program("blkid", "echo blkid: \"$@\"");
  const RunResult result = machine.run(kPlatterctl, {"list"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("lsblk: -a -o NAME,MAJ:MIN,TYPE,SIZE"));
  EXPECT_THAT(result.output, HasSubstr("blkid: -c /dev/null\n"));
  EXPECT_THAT(result.output, Not(HasSubstr("SERIAL")));
  EXPECT_THAT(result.output, Not(HasSubstr("WWN")));
}

TEST(DiskListTest, IsNotHereWithoutTools) {
  ScratchMachine machine;
  const RunResult result = machine.run(kPlatterctl, {"list"});
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_EQ(result.output, "not installed: lsblk, blkid\n");
}

TEST(VolumeListTest, RunsWhatIsInstalledAndMasksMountOptions) {
  ScratchMachine machine;
  machine.program("findmnt", "echo '/mnt //host/share cifs rw,password=CANARY'");
  machine.program("mdadm", "echo ARRAY \"$@\"");
  const RunResult result = machine.run(kPlatterctl, {"vellum", "list"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("ARRAY --detail --scan\n"));
  EXPECT_THAT(result.output, HasSubstr("not installed: btrfs, pvs, vgs, lvs\n"));
  EXPECT_THAT(result.output, Not(HasSubstr("CANARY")));
}

class DiskDescriptionTest : public testing::Test {
 protected:
  DiskDescriptionTest() {
    machine_.file("/sys/block/sda/size", "1000\n");
    machine_.file("/sys/block/sda/device/model", "Disk\n");
    machine_.file("/sys/block/loop0/size", "0\n");
    machine_.file("/sys/block/dm-0/size", "500\n");
    machine_.program("lsblk", "echo topology");
    machine_.program("sfdisk", "echo sfdisk: \"$@\"");
  }
  ScratchMachine machine_;
};

TEST_F(DiskDescriptionTest, AsksHardwareOnlyWhereThereIsSome) {
  machine_.program("smartctl", "echo smartctl: \"$@\"");
  const RunResult result = machine_.run(kPlatterctl, {"info", "-all"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("sfdisk: -l /dev/sda\n"));
  EXPECT_THAT(result.output, HasSubstr("sfdisk: -l /dev/dm-0\n"));
  EXPECT_THAT(result.output, HasSubstr("smartctl: -i -H -A /dev/sda\n"));
  EXPECT_THAT(result.output, Not(HasSubstr("smartctl: -i -H -A /dev/dm-0")));
  EXPECT_THAT(result.output, Not(HasSubstr("loop0")));
}

TEST_F(DiskDescriptionTest, DropsWhatTellsOneDiskFromAnother) {
  machine_.program("smartctl",
                   "echo 'Device Model: KEPT ONE'\n"
                   "echo 'Serial Number:    CANARY'\n"
                   "echo 'LU WWN Device Id: 5 000c50 CANARY'\n"
                   "echo 'Logical Unit id:      0xCANARY'\n"
                   "echo 'Namespace 1 IEEE EUI-64: CANARY'\n"
                   "echo 'Namespace 1 NGUID: CANARY'\n"
                   "echo 'Transport protocol: SAS (KEPT TWO)'\n"
                   "exit 64");
  const RunResult result = machine_.run(kPlatterctl, {"info", "-all"});
  EXPECT_EQ(result.exitCode, 0) << "the tool's bit mask is not ours";
  EXPECT_THAT(result.output, HasSubstr("KEPT ONE"));
  EXPECT_THAT(result.output, HasSubstr("KEPT TWO"));
  EXPECT_THAT(result.output, HasSubstr("(smartctl: exit code 64)"));
  EXPECT_THAT(result.output, Not(HasSubstr("CANARY")));
}

TEST_F(DiskDescriptionTest, NamesAMissingToolOnce) {
  const RunResult result = machine_.run(kPlatterctl, {"info", "-all"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("\nnot installed: smartctl\n"));
}

TEST_F(DiskDescriptionTest, SaysWhenDevicesCannotBeRead) {
  machine_.becomeOrdinaryUser();
  machine_.file("/dev/sda", "", 0000);
  machine_.directory("/sys/class/block/sda");
  const RunResult result = machine_.run(kPlatterctl, {"info", "-all"});
  EXPECT_THAT(result.output, HasSubstr("not permitted to this user: reading the block devices\n"));
}

}  // namespace
}  // namespace quillsift::tools
