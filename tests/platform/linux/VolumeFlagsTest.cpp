#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>

#include "platform/FileDescriptor.h"
#include "platform/FileSystem.h"
#include "platform/linux/VolumeFlags.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

TEST(VolumeFlagsTest, TellsNetworkFileSystemsFromLocalOnes) {
  constexpr std::uint64_t kNetwork[] = {NFS_SUPER_MAGIC,
                                        SMB_SUPER_MAGIC,
                                        V9FS_MAGIC,
                                        CODA_SUPER_MAGIC,
                                        AFS_SUPER_MAGIC,
                                        AFS_FS_MAGIC,
                                        0xFE534D42 /* SMB 2 */,
                                        0xFF534D42 /* CIFS */,
                                        0x00C36400 /* Ceph */,
                                        0x65735546 /* FUSE */};
  constexpr std::uint64_t kLocal[] = {
      EXT4_SUPER_MAGIC, 0x58465342 /* XFS */,  BTRFS_SUPER_MAGIC, MSDOS_SUPER_MAGIC,
      TMPFS_MAGIC,      OVERLAYFS_SUPER_MAGIC, PROC_SUPER_MAGIC};
  for (const std::uint64_t type : kNetwork)
    EXPECT_TRUE(isNetworkFileSystem(type)) << type;
  for (const std::uint64_t type : kLocal)
    EXPECT_FALSE(isNetworkFileSystem(type)) << type;
}

class RemovableDeviceTest : public testing::Test {
 protected:
  bool isRemovable(unsigned major, unsigned minor) const {
    return isRemovableDevice(::makedev(major, minor), devices_.at("dev/block"));
  }

  // As the kernel lays them out: numbers are links to the devices.
  void addDisk(const std::string& name, const std::string& number, const char* removable) const {
    devices_.write("devices/" + name + "/removable", removable);
    devices_.link("dev/block/" + number, "../../devices/" + name);
  }
  void addPartition(const std::string& disk, const std::string& name,
                    const std::string& number) const {
    devices_.write("devices/" + disk + "/" + name + "/partition", "1\n");
    devices_.link("dev/block/" + number, "../../devices/" + disk + "/" + name);
  }

  const ScratchTree devices_;
};

TEST_F(RemovableDeviceTest, AsksTheDisk) {
  addDisk("sda", "8:0", "0\n");
  addDisk("sdb", "8:16", "1\n");
  EXPECT_FALSE(isRemovable(8, 0));
  EXPECT_TRUE(isRemovable(8, 16));
}

TEST_F(RemovableDeviceTest, AsksTheDiskOfAPartition) {
  addDisk("sda", "8:0", "0\n");
  addDisk("sdb", "8:16", "1\n");
  addPartition("sda", "sda1", "8:1");
  addPartition("sdb", "sdb1", "8:17");
  EXPECT_FALSE(isRemovable(8, 1));
  EXPECT_TRUE(isRemovable(8, 17));
}

TEST_F(RemovableDeviceTest, AsksTheDevicesThatOneIsMadeFrom) {
  addDisk("sda", "8:0", "0\n");
  addDisk("sdb", "8:16", "1\n");
  addPartition("sda", "sda1", "8:1");
  addPartition("sdb", "sdb1", "8:17");
  addDisk("dm-0", "253:0", "0\n");
  addDisk("dm-1", "253:1", "0\n");
  addDisk("dm-2", "253:2", "0\n");
  devices_.link("devices/dm-0/slaves/sda1", "../../sda/sda1");
  devices_.link("devices/dm-1/slaves/sda1", "../../sda/sda1");
  devices_.link("devices/dm-1/slaves/sdb1", "../../sdb/sdb1");
  devices_.link("devices/dm-2/slaves/dm-1", "../../dm-1");
  EXPECT_FALSE(isRemovable(253, 0));
  EXPECT_TRUE(isRemovable(253, 1));
  EXPECT_TRUE(isRemovable(253, 2));
  EXPECT_TRUE(holdsRemovableDevice(devices_.at("devices/dm-1/slaves")));
  EXPECT_FALSE(holdsRemovableDevice(devices_.at("devices/dm-0/slaves")));
  EXPECT_FALSE(holdsRemovableDevice(devices_.at("missing")));
}

TEST_F(RemovableDeviceTest, ComesToAnEndWhereDevicesAreMadeFromThemselves) {
  addDisk("dm-0", "253:0", "0\n");
  devices_.link("devices/dm-0/slaves/dm-0", "../../dm-0");
  EXPECT_FALSE(isRemovable(253, 0));
}

TEST_F(RemovableDeviceTest, TakesWhatItCannotTellForFixed) {
  devices_.link("dev/block/0:39", "../../devices/sdb");
  addDisk("sdb", "8:16", "1\n");
  EXPECT_FALSE(isRemovable(0, 39));
  EXPECT_FALSE(isRemovable(9, 9));
}

TEST(VolumeFlagsTest, CountsHereAsLocalAndFixed) {
  const ScratchTree scratch;
  const FileDescriptor file(::open(scratch.write("file", "x").c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status {};
  ASSERT_EQ(::fstat(file.get(), &status), 0);
  for (int again = 0; again < 2; ++again) {
    EXPECT_EQ(volumeFlags(file.get(), status.st_dev), kMountLocal);
  }
}

TEST(VolumeFlagsTest, NeverPassesOnTheKernelsOwnFlags) {
  // Read-only, no devices and so on, whatever the host has set there.
  for (const char* path : {"/proc/version", "/sys/kernel/uevent_seqnum", "/dev/null"}) {
    const FileDescriptor file(::open(path, O_PATH | O_CLOEXEC));
    ASSERT_TRUE(file.valid()) << path;
    EXPECT_EQ(volumeFlags(file.get(), 0), kMountLocal) << path;
  }
}

TEST(VolumeFlagsTest, FailsForAClosedFile) {
  errno = 0;
  EXPECT_FALSE(volumeFlags(-1, 0));
  EXPECT_EQ(errno, EBADF);
}

}  // namespace
}  // namespace quillsift
