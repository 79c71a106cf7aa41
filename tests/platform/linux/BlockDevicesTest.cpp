#include <gtest/gtest.h>
#include <sys/mount.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "platform/linux/BlockDevices.h"
#include "tests/platform/linux/PrivateDevices.h"
#include "tests/platform/linux/ScratchTree.h"
#include "tests/platform/linux/VolumeImage.h"

namespace quillsift {
namespace {

using Names = std::vector<std::string>;

constexpr const char* kDirectory = "sys/class/block";
constexpr const char* kNoNamespace = "may not make a mount namespace here";
constexpr const char* kNoDevices = "this machine has no block device";

// Some block device of this machine; none where there is none.
std::optional<std::string> someDevice() {
  const auto names = linuxBlockDevices(std::make_shared<const PlatformTree>(""))->names();
  if (!names || names->empty()) return std::nullopt;
  return names->front();
}

// An empty /run, in a private mount namespace only, with this as what udev knows of the device.
bool makeDatabase(const std::string& name, const std::string& record) {
  std::string number;
  std::getline(std::ifstream("/sys/class/block/" + name + "/dev"), number);
  std::error_code error;
  if (::mount("none", "/run", "tmpfs", 0, nullptr) != 0) return false;
  std::filesystem::create_directories("/run/udev/data", error);
  std::ofstream file("/run/udev/data/b" + number);
  return static_cast<bool>(file << record << std::flush);
}

TEST(BlockDevicesTest, ListsTheNamesInOrder) {
  const ScratchTree scratch;
  for (const char* name : {"sdb", "sda1", "sda", "cciss!c0d0"})
    scratch.makeDirectory(std::string(kDirectory) + "/" + name);
  EXPECT_EQ(linuxBlockDevices(scratch.tree())->names(),
            (Names{"cciss!c0d0", "sda", "sda1", "sdb"}));
}

TEST(BlockDevicesTest, TellsNoDevicesFromNotKnowing) {
  const ScratchTree scratch;
  scratch.makeDirectory(kDirectory);
  EXPECT_EQ(linuxBlockDevices(scratch.tree())->names(), Names());
  const ScratchTree without;
  without.link(kDirectory, "/dev/null");
  EXPECT_EQ(linuxBlockDevices(without.tree())->names(), std::nullopt);
  const ScratchTree odd;
  odd.write(kDirectory, "no directory");
  EXPECT_EQ(linuxBlockDevices(odd.tree())->names(), std::nullopt);
}

TEST(BlockDevicesTest, HasNoDeviceThatHasGone) {
  const ScratchTree scratch;
  const auto devices = linuxBlockDevices(scratch.tree());
  EXPECT_FALSE(devices->device("quillsift-no-such-device"));
  EXPECT_FALSE(devices->device(""));
  EXPECT_FALSE(devices->device("../../kernel"));
}

TEST(BlockDevicesTest, KnowsWhatUdevRecorded) {
  const auto name = someDevice();
  if (!name) GTEST_SKIP() << kNoDevices;
  const auto ran = runWithPrivateDevices(false, [&] {
    const auto devices = linuxBlockDevices(std::make_shared<const PlatformTree>(""));
    if (!makeDatabase(*name,
                      "I:1\nE:ID_FS_USAGE=filesystem\nE:ID_FS_TYPE=vfat\nE:ID_FS_UUID=CA18-AA35\n"
                      "E:ID_FS_LABEL=EFI\nE:ID_PART_ENTRY_TYPE=0xef\nE:ID_PART_ENTRY_UUID=p-01\n"
                      "E:QS_VOLUME_ROLE=320\n")) {
      return false;
    }
    const auto device = devices->device(*name);
    return device && device->name == *name &&
           device->recorded == VolumeFacts{.use = "filesystem",
                                           .type = "vfat",
                                           .fileSystemUUID = "CA18-AA35",
                                           .label = "EFI",
                                           .partitionType = "0xef",
                                           .partitionUUID = "p-01",
                                           .role = "320"};
  });
  if (!ran) GTEST_SKIP() << kNoNamespace;
}

TEST(BlockDevicesTest, KnowsOfAnEmptyRecordThatThereIsNothing) {
  const auto name = someDevice();
  if (!name) GTEST_SKIP() << kNoDevices;
  const auto ran = runWithPrivateDevices(false, [&] {
    const auto devices = linuxBlockDevices(std::make_shared<const PlatformTree>(""));
    if (!makeDatabase(*name, "I:1\n")) return false;
    const auto device = devices->device(*name);
    return device && device->recorded == VolumeFacts();
  });
  if (!ran) GTEST_SKIP() << kNoNamespace;
}

TEST(BlockDevicesTest, RecordsNothingWhereUdevDidNotLook) {
  const auto name = someDevice();
  if (!name) GTEST_SKIP() << kNoDevices;
  const auto ran = runWithPrivateDevices(false, [&] {
    const auto devices = linuxBlockDevices(std::make_shared<const PlatformTree>(""));
    if (::mount("none", "/run", "tmpfs", 0, nullptr) != 0) return false;
    const auto device = devices->device(*name);
    return device && !device->recorded;
  });
  if (!ran) GTEST_SKIP() << kNoNamespace;
}

TEST(BlockDevicesTest, LooksAtTheDevicesNode) {
  const ScratchTree scratch;
  const std::string image =
      scratch.write("image", extVolumeImage("0123456789abcdef", "QS-PREBOOT"));
  const auto ran = runWithPrivateDevices(false, [&] {
    std::error_code error;
    std::filesystem::create_directories("/dev/cciss", error);
    std::filesystem::create_symlink(image, "/dev/cciss/c0d0", error);
    const auto devices = linuxBlockDevices(std::make_shared<const PlatformTree>(""));
    const auto facts = devices->probe({.name = "cciss/c0d0"});
    return facts && facts->label == "QS-PREBOOT" && !devices->probe({.name = "missing"});
  });
  if (!ran) GTEST_SKIP() << kNoNamespace;
}

}  // namespace
}  // namespace quillsift
