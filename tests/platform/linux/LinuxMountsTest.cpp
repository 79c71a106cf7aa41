#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "platform/FileDescriptor.h"
#include "platform/linux/LinuxMounts.h"
#include "tests/platform/linux/LoopDevice.h"
#include "tests/platform/linux/PrivateDevices.h"
#include "tests/platform/linux/ResourceLimit.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

constexpr const char* kNoNamespace = "may not make a mount namespace here";

constexpr const char* kNoLoop = "may not have a loop device here";
constexpr const char* kType = "vellum";

std::string unchanged(const std::string& path) {
  return path;
}

bool tableHas(LinuxMounts& mounts, const std::string& from, const std::string& on) {
  const auto table = mounts.table();
  return std::any_of(table.begin(), table.end(), [&](const MountTableEntry& entry) {
    return entry.mountedFrom == from && entry.mountedOn == on;
  });
}

std::string parsed(const std::string& line) {
  const MountTableEntry entry = LinuxMounts::parseMountInfoLine(line);
  return entry.mountedFrom + " on " + entry.mountedOn;
}

TEST(LinuxMountsTest, ParsesALineWithAnyNumberOfOptionalFields) {
  EXPECT_EQ(parsed("36 35 98:0 / /mnt rw,noatime - ext4 /dev/sda1 rw"), "/dev/sda1 on /mnt");
  EXPECT_EQ(parsed("36 35 98:0 / /mnt rw shared:1 master:2 - ext4 /dev/sda1 rw"),
            "/dev/sda1 on /mnt");
}

TEST(LinuxMountsTest, ParsesEscapedNames) {
  EXPECT_EQ(parsed(R"(36 35 0:5 / /mnt/a\040b\134\011\012c rw - tmpfs no\040ne rw)"),
            "no ne on /mnt/a b\\\t\nc");
  EXPECT_EQ(parsed(R"(36 35 0:5 / /mnt/a\04 rw - tmpfs none\9 rw)"), R"(none\9 on /mnt/a\04)");
}

TEST(LinuxMountsTest, BelievesNoMountThatAnybodyCanNameAsTheyLike) {
  EXPECT_EQ(parsed("36 35 0:50 / /home/u/m rw - fuse.sshfs /dev/sda1 rw"), " on ");
  EXPECT_EQ(parsed("36 35 0:50 / /home/u/m rw - fuse /dev/sda1 rw"), " on ");
  EXPECT_EQ(parsed("36 35 8:1 / /mnt rw - fuseblk /dev/sda1 rw"), "/dev/sda1 on /mnt");
}

TEST(LinuxMountsTest, ParsesNothingFromWhatIsNoLine) {
  for (const char* line : {"", "36 35", "36 35 98:0 / /mnt rw", "36 35 98:0 / /mnt rw - ext4"})
    EXPECT_EQ(parsed(line), " on ") << line;
}

TEST(LinuxMountsTest, TakesAMountOfAPartForNoneButForSubvolumes) {
  EXPECT_EQ(parsed("36 35 98:0 /etc/hosts /etc/hosts rw - ext4 /dev/sda1 rw"), " on ");
  EXPECT_EQ(parsed("36 35 0:39 /@ /mnt rw - btrfs /dev/sda1 rw"), "/dev/sda1 on /mnt");
}

TEST(LinuxMountsTest, ListsADeviceByItsNodeWhateverLinkItWasMountedBy) {
  const ScratchTree scratch;
  const std::string directory = scratch.makeDirectory("volume");
  const auto ran = runWithPrivateDevices(false, [&] {
    std::error_code error;
    std::filesystem::create_directories("/dev/mapper", error);
    std::ofstream("/dev/dm-0");
    std::filesystem::create_symlink("../dm-0", "/dev/mapper/group-root", error);
    LinuxMounts mounts(unchanged);
    return ::mount("/dev/mapper/group-root", directory.c_str(), "tmpfs", 0, nullptr) == 0 &&
           tableHas(mounts, "/dev/dm-0", directory) &&
           ::mount("/dev/gone", directory.c_str(), "tmpfs", 0, nullptr) == 0 &&
           tableHas(mounts, "/dev/gone", directory);
  });
  if (!ran) GTEST_SKIP() << kNoNamespace;
}

TEST(LinuxMountsTest, FollowsNoLinkThatLeadsOutOfTheDevices) {
  const ScratchTree scratch;
  const std::string directory = scratch.makeDirectory("volume");
  const std::string node = scratch.write("node", "");
  const auto ran = runWithPrivateDevices(false, [&] {
    std::error_code error;
    std::filesystem::create_symlink(node, "/dev/out", error);
    std::filesystem::create_directory("/dev/shm", error);
    std::ofstream("/dev/sda1");
    LinuxMounts mounts(unchanged);
    const auto isLeftAsItIs = [&](const std::string& source) {
      return ::mount(source.c_str(), directory.c_str(), "tmpfs", 0, nullptr) == 0 &&
             tableHas(mounts, source, directory) && mounts.unmount(directory, false);
    };
    if (::mount("shm", "/dev/shm", "tmpfs", 0, nullptr) != 0) return false;
    std::filesystem::create_symlink("../sda1", "/dev/shm/planted", error);
    return isLeftAsItIs("/dev/out") && isLeftAsItIs("/dev/shm/planted") &&
           isLeftAsItIs("/dev/.." + node) && isLeftAsItIs("/dev/shm/../sda1");
  });
  if (!ran) GTEST_SKIP() << kNoNamespace;
}

TEST(LinuxMountsTest, ListsTheRootOfThisSystem) {
  LinuxMounts mounts(unchanged);
  const auto table = mounts.table();
  EXPECT_TRUE(std::any_of(table.begin(), table.end(),
                          [](const MountTableEntry& entry) { return entry.mountedOn == "/"; }));
}

TEST(LinuxMountsTest, ListsAndUnmountsAVolumeWithBlanksInItsNames) {
  const ScratchTree scratch;
  const std::string directory = scratch.makeDirectory("a b\\c");
  const auto ran = runWithPrivateDevices(false, [&] {
    LinuxMounts mounts(unchanged);
    return ::mount("de vice", directory.c_str(), "tmpfs", 0, nullptr) == 0 &&
           tableHas(mounts, "de vice", directory) && mounts.unmount(directory, false) &&
           !tableHas(mounts, "de vice", directory);
  });
  if (!ran) GTEST_SKIP() << kNoNamespace;
}

TEST(LinuxMountsTest, TakesABusyVolumeAwayOnlyByForce) {
  const ScratchTree scratch;
  const std::string directory = scratch.makeDirectory("volume");
  const auto ran = runWithPrivateDevices(false, [&] {
    LinuxMounts mounts(unchanged);
    if (::mount("device", directory.c_str(), "tmpfs", 0, nullptr) != 0) return false;
    const FileDescriptor user(::open(directory.c_str(), O_RDONLY | O_CLOEXEC));
    if (mounts.unmount(directory, false) || errno != EBUSY) return false;
    if (!tableHas(mounts, "device", directory)) return false;
    return mounts.unmount(directory, true) && !tableHas(mounts, "device", directory);
  });
  if (!ran) GTEST_SKIP() << kNoNamespace;
}

TEST(LinuxMountsTest, DoesNotUnmountThroughALink) {
  const ScratchTree scratch;
  const std::string directory = scratch.makeDirectory("volume");
  const std::string link = scratch.link("link", directory);
  const auto ran = runWithPrivateDevices(false, [&] {
    LinuxMounts mounts(unchanged);
    if (::mount("device", directory.c_str(), "tmpfs", 0, nullptr) != 0) return false;
    for (const bool force : {false, true}) {
      if (mounts.unmount(link, force) || errno != EINVAL) return false;
    }
    return tableHas(mounts, "device", directory);
  });
  if (!ran) GTEST_SKIP() << kNoNamespace;
}

TEST(LinuxMountsTest, FailsToUnmountWhatIsNotThere) {
  const ScratchTree scratch;
  LinuxMounts mounts(unchanged);
  for (const bool force : {false, true}) {
    errno = 0;
    EXPECT_FALSE(mounts.unmount(scratch.at("missing"), force));
    EXPECT_NE(errno, 0);
    EXPECT_FALSE(mounts.unmount(scratch.directory(), force));
  }
}

TEST(LinuxMountsTest, MakesADirectoryInTheParentThatTheTreeNames) {
  const ScratchTree scratch;
  LinuxMounts mounts(
      [&](const std::string& path) { return path == "/private/tmp" ? scratch.directory() : ""; });
  ASSERT_TRUE(mounts.makeDirectory("/private/tmp/NEW", 0700));
  struct stat status {};
  ASSERT_EQ(::stat(scratch.at("NEW").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, S_IFDIR | 0700u);
  EXPECT_FALSE(mounts.makeDirectory("/private/tmp/NEW", 0700));
  EXPECT_EQ(errno, EEXIST);
  EXPECT_FALSE(mounts.makeDirectory("/hidden/quillsift-test", 0700));
  EXPECT_EQ(errno, ENOENT);
}

// A volume mount record of a device, for user 1001 and group 1002.
class Record {
 public:
  explicit Record(std::string device) : device_(std::move(device)) {
    store(0, device_.c_str());
    store(324, std::uint32_t{1001});
    store(328, std::uint32_t{1002});
  }
  std::span<const std::byte> bytes() const { return bytes_; }

 private:
  template <typename T>
  void store(std::size_t offset, T value) {
    std::memcpy(bytes_.data() + offset, &value, sizeof value);
  }

  const std::string device_;
  std::array<std::byte, 336> bytes_{};
};

LinuxMounts::Probe finding(const std::string& use, const std::string& type) {
  return [use, type](const std::string&) { return VolumeFacts{.use = use, .type = type}; };
}

TEST(LinuxMountsTest, GivesUserAndGroupOnlyToAFileSystemWithoutOwners) {
  const Record record("/dev/sda1");
  EXPECT_EQ(LinuxMounts::optionsFor("vfat", record.bytes()), "uid=1001,gid=1002");
  for (const char* type : {"ext4", "xfs", "btrfs", ""})
    EXPECT_EQ(LinuxMounts::optionsFor(type, record.bytes()), "") << type;
}

TEST(LinuxMountsTest, MountsOnlyByTheRecordItKnows) {
  LinuxMounts mounts(unchanged, finding("filesystem", "tmpfs"));
  const Record record("/dev/sda1");
  EXPECT_FALSE(mounts.mount("strata", "/nowhere", MountFlags::none, record.bytes()));
  EXPECT_EQ(errno, ENODEV);
  EXPECT_FALSE(mounts.mount(kType, "/nowhere", MountFlags::none, record.bytes().first(335)));
  EXPECT_EQ(errno, EINVAL);
}

TEST(LinuxMountsTest, MountsNothingThatHoldsNoFileSystem) {
  const Record record("/dev/sda1");
  for (const char* use : {"", "crypto", "raid"}) {
    LinuxMounts mounts(unchanged, finding(use, "crypto_LUKS"));
    errno = 0;
    EXPECT_FALSE(mounts.mount(kType, "/nowhere", MountFlags::none, record.bytes()));
    EXPECT_EQ(errno, ENODEV);
  }
}

TEST(LinuxMountsTest, MountsNothingWhileTheTableCannotBeRead) {
  bool probed = false;
  LinuxMounts mounts(unchanged, [&](const std::string&) {
    probed = true;
    return std::optional<VolumeFacts>();
  });
  const Record record("/dev/sda1");
  {
    const DescriptorShortage shortage(0);
    EXPECT_TRUE(mounts.table().empty());
    EXPECT_FALSE(mounts.mount(kType, "/nowhere", MountFlags::none, record.bytes()));
    EXPECT_EQ(errno, EMFILE);
  }
  EXPECT_FALSE(probed);
  EXPECT_FALSE(mounts.table().empty());
}

TEST(LinuxMountsTest, HandsOnWhyADeviceCannotBeRead) {
  LinuxMounts mounts(unchanged, [](const std::string& device) -> std::optional<VolumeFacts> {
    errno = device == "/dev/dying" ? EIO : ENOENT;
    return std::nullopt;
  });
  EXPECT_FALSE(mounts.mount(kType, "/nowhere", MountFlags::none, Record("/dev/dying").bytes()));
  EXPECT_EQ(errno, EIO);
  EXPECT_FALSE(mounts.mount(kType, "/nowhere", MountFlags::none, Record("/dev/gone").bytes()));
  EXPECT_EQ(errno, ENOENT);
}

// The kernel's line about what is mounted there: options, "-", type, source, options.
std::string mountLine(const std::string& directory) {
  std::ifstream table("/proc/self/mountinfo");
  std::string found;
  for (std::string line; std::getline(table, line);) {
    if (line.find(" " + directory + " ") != std::string::npos) found = line;
  }
  return found;
}

bool hasAll(const std::string& text, std::initializer_list<const char*> parts) {
  return std::all_of(parts.begin(), parts.end(),
                     [&](const char* part) { return text.find(part) != std::string::npos; });
}

// A device with an empty file system, in a mount namespace of the test's own.
class VolumeMountTest : public testing::Test {
 protected:
  std::string makeImage() const {
    const std::string image = scratch_.write("image", "");
    std::error_code error;
    std::filesystem::resize_file(image, std::uintmax_t{8} << 20, error);
    // NOLINTNEXTLINE(cert-env33-c): the test's own words
    EXPECT_EQ(std::system(("mkfs.ext4 -q -F " + image).c_str()), 0);
    return image;
  }

  const ScratchTree scratch_;
};

TEST_F(VolumeMountTest, MountsWhatIsOnTheDeviceSoThatNothingOnItCanHurt) {
  const LoopDevice device(makeImage());
  if (!device.valid()) GTEST_SKIP() << kNoLoop;
  const std::string directory = scratch_.makeDirectory("tree/volume");
  const auto ran = runWithPrivateDevices(false, [&] {
    LinuxMounts mounts([&](const std::string& path) { return scratch_.at("tree") + path; });
    const Record record("/dev/" + device.name());
    if (!device.makeNode() ||
        !mounts.mount(kType, "/volume", MountFlags::synchronous, record.bytes())) {
      return false;
    }
    return hasAll(mountLine(directory), {"rw,nosuid,nodev,noexec", " - ext4 ", "rw,sync"}) &&
           tableHas(mounts, "/dev/" + device.name(), directory) &&
           mounts.unmount("/volume", false) && mountLine(directory).empty();
  });
  if (!ran) GTEST_SKIP() << kNoNamespace;
}

TEST_F(VolumeMountTest, FollowsNoLinkOnTheVolume) {
  utsname kernel{};
  ASSERT_EQ(::uname(&kernel), 0);
  if (::strverscmp(kernel.release, "5.10") < 0) GTEST_SKIP() << "the kernel cannot do that";
  const LoopDevice device(makeImage());
  if (!device.valid()) GTEST_SKIP() << kNoLoop;
  const std::string directory = scratch_.makeDirectory("volume");
  const auto ran = runWithPrivateDevices(false, [&] {
    LinuxMounts mounts(unchanged);
    const Record record("/dev/" + device.name());
    const std::string link = directory + "/link";
    return device.makeNode() &&
           mounts.mount(kType, directory, MountFlags::synchronous, record.bytes()) &&
           ::symlink("/etc/passwd", link.c_str()) == 0 &&
           ::open(link.c_str(), O_RDONLY | O_CLOEXEC) == -1 && errno == ELOOP &&
           mounts.unmount(directory, false);
  });
  if (!ran) GTEST_SKIP() << kNoNamespace;
}

TEST_F(VolumeMountTest, IsListedByItsNodeWhateverItWasMountedAs) {
  const LoopDevice device(makeImage());
  if (!device.valid()) GTEST_SKIP() << kNoLoop;
  const std::string directory = scratch_.makeDirectory("volume");
  const auto ran = runWithPrivateDevices(false, [&] {
    LinuxMounts mounts(unchanged);
    const std::string node = "/dev/" + device.name();
    return device.makeNode() && ::rename(node.c_str(), "/dev/root") == 0 &&
           ::mount("/dev/root", directory.c_str(), "ext4", 0, nullptr) == 0 &&
           tableHas(mounts, node, directory) && mounts.unmount(directory, false);
  });
  if (!ran) GTEST_SKIP() << kNoNamespace;
}

TEST_F(VolumeMountTest, MountsAWriteProtectedDeviceForReading) {
  const LoopDevice device(makeImage(), /*readOnly=*/true);
  if (!device.valid()) GTEST_SKIP() << kNoLoop;
  const std::string directory = scratch_.makeDirectory("volume");
  const auto ran = runWithPrivateDevices(false, [&] {
    LinuxMounts mounts(unchanged);
    const Record record("/dev/" + device.name());
    return device.makeNode() &&
           mounts.mount(kType, directory, MountFlags::synchronous, record.bytes()) &&
           hasAll(mountLine(directory), {"ro,nosuid,nodev,noexec", " - ext4 "}) &&
           mounts.unmount(directory, false);
  });
  if (!ran) GTEST_SKIP() << kNoNamespace;
}

TEST_F(VolumeMountTest, FailsForAFileSystemThatTheKernelLacks) {
  const LoopDevice device(makeImage());
  if (!device.valid()) GTEST_SKIP() << kNoLoop;
  const std::string directory = scratch_.makeDirectory("volume");
  const auto ran = runWithPrivateDevices(false, [&] {
    LinuxMounts mounts(unchanged, finding("filesystem", "quillsift-no-such-type"));
    const Record record("/dev/" + device.name());
    return device.makeNode() &&
           !mounts.mount(kType, directory, MountFlags::synchronous, record.bytes()) &&
           errno == ENODEV && mountLine(directory).empty();
  });
  if (!ran) GTEST_SKIP() << kNoNamespace;
}

TEST_F(VolumeMountTest, FailsWhereThereIsNoDirectory) {
  const LoopDevice device(makeImage());
  if (!device.valid()) GTEST_SKIP() << kNoLoop;
  const auto ran = runWithPrivateDevices(false, [&] {
    LinuxMounts mounts(unchanged);
    const Record record("/dev/" + device.name());
    return device.makeNode() &&
           !mounts.mount(kType, scratch_.at("missing"), MountFlags::synchronous, record.bytes()) &&
           errno == ENOENT;
  });
  if (!ran) GTEST_SKIP() << kNoNamespace;
}

}  // namespace
}  // namespace quillsift
