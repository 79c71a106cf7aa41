#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "host/QSVolumeUtilities.h"
#include "tests/doubles/TestPlatform.h"

namespace quillsift {
namespace {

constexpr const char* kUUID = "7F3B0C11-1A2B-4C3D-8E4F-0123456789AB";
constexpr const char* kClass = "VantorVellumVolume";
constexpr const char* kPrefix = "MountPointForVellumVolumeUUID: ";

class QSVolumeUtilitiesTest : public testing::Test {
 protected:
  void addVolume(const std::string& bsdName = "sda2", std::int64_t role = 16) {
    platform_.deviceRegistry().add(
        "", kClass, {{"UUID", std::string(kUUID)}, {"BSD Name", bsdName}, {"RoleValue", role}});
  }

  std::optional<std::string> mountPoint(bool attemptMount) {
    didMount_ = true;
    return QSVolumeUtilities::mountPointForVellumVolumeUUID(kUUID, attemptMount, &didMount_);
  }

  std::vector<std::string> errors() const {
    std::vector<std::string> messages;
    for (const LogLine& line : platform_.systemLog().lines()) {
      EXPECT_EQ(line.priorityWord, 115);
      messages.push_back(line.message);
    }
    return messages;
  }

  template <typename T>
  static T at(const std::vector<std::byte>& record, std::size_t offset) {
    T value;
    std::memcpy(&value, record.data() + offset, sizeof value);
    return value;
  }

  mutable TestPlatform platform_;
  bool didMount_ = false;
};

TEST_F(QSVolumeUtilitiesTest, SaysThatThereIsNoSuchVolume) {
  EXPECT_FALSE(mountPoint(true));
  EXPECT_FALSE(didMount_);
  EXPECT_EQ(errors(),
            std::vector<std::string>{std::string(kPrefix) +
                                     "No dr_object_t for the volume uuid: '" + kUUID + "'"});
}

TEST_F(QSVolumeUtilitiesTest, SaysThatTheVolumeHasNoNameAlsoWhenItIsNoText) {
  platform_.deviceRegistry().add("", kClass,
                                 {{"UUID", std::string(kUUID)}, {"BSD Name", std::int64_t{7}}});
  EXPECT_FALSE(mountPoint(true));
  EXPECT_EQ(errors(), std::vector<std::string>{std::string(kPrefix) +
                                               "No BSD name for volume uuid: '" + kUUID + "'"});
}

TEST_F(QSVolumeUtilitiesTest, FindsAMountedVolumeByItsDeviceTheFirstEntryWinning) {
  addVolume();
  platform_.mounts().add("/dev/sda22", "/wrong");
  platform_.mounts().add("/dev/sda2", "/first");
  platform_.mounts().add("/dev/sda2", "/second");
  EXPECT_EQ(mountPoint(true), "/first");
  EXPECT_FALSE(didMount_);
  EXPECT_TRUE(errors().empty());
}

TEST_F(QSVolumeUtilitiesTest, PutsASlashBeforeARelativeMountPointAndKeepsAnEmptyOne) {
  addVolume();
  platform_.mounts().add("/dev/sda2", "relative");
  EXPECT_EQ(mountPoint(false), "/relative");
  platform_.mounts().remove("relative");
  platform_.mounts().add("/dev/sda2", "");
  EXPECT_EQ(mountPoint(false), "");
  EXPECT_TRUE(errors().empty());
}

TEST_F(QSVolumeUtilitiesTest, DoesNotMountUnasked) {
  addVolume();
  EXPECT_FALSE(mountPoint(false));
  EXPECT_EQ(errors(),
            std::vector<std::string>{std::string(kPrefix) +
                                     "No mount point for the volume uuid: '" + kUUID + "'"});
  EXPECT_TRUE(platform_.mounts().calls().empty());
}

TEST_F(QSVolumeUtilitiesTest, MountsInANewDirectoryWithTheRecordOfTheFileSystem) {
  addVolume();
  const auto directory = mountPoint(true);
  ASSERT_TRUE(directory);
  EXPECT_TRUE(didMount_);
  EXPECT_TRUE(directory->starts_with("/private/tmp/"));
  EXPECT_EQ(directory->size(), std::strlen("/private/tmp/") + 36);
  EXPECT_EQ(directory->find(kUUID), std::string::npos);
  const auto calls = platform_.mounts().calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].operation, "makeDirectory");
  EXPECT_EQ(calls[0].path, *directory);
  EXPECT_EQ(calls[0].mode, 0755u);
  EXPECT_EQ(calls[1].type, "vellum");
  EXPECT_EQ(calls[1].device, "/dev/sda2");
  EXPECT_EQ(calls[1].flags, MountFlags::synchronous);
  const auto& record = calls[1].record;
  ASSERT_EQ(record.size(), 336u);
  EXPECT_EQ(at<std::uint64_t>(record, 8), 0u);
  EXPECT_EQ(at<std::uint16_t>(record, 16), 1u);
  EXPECT_EQ(at<std::uint32_t>(record, 324), ::getuid());
  EXPECT_EQ(at<std::uint32_t>(record, 328), ::getgid());
  for (std::size_t i = 18; i < 324; ++i)
    EXPECT_EQ(record[i], std::byte{0}) << i;
  EXPECT_EQ(errors(), std::vector<std::string>{std::string(kPrefix) + "Volume UUID: '" + kUUID +
                                               "' BSD: 'sda2' is not mounted. Attempting to "
                                               "mount..."});
}

TEST_F(QSVolumeUtilitiesTest, AFailedMountLogsTwoLinesAndLeavesTheDirectory) {
  addVolume();
  platform_.mounts().fail("mount", "/dev/sda2", ENODEV);
  EXPECT_FALSE(mountPoint(true));
  EXPECT_FALSE(didMount_);
  const auto messages = errors();
  ASSERT_EQ(messages.size(), 3u);
  const std::string directory = platform_.mounts().calls().at(0).path;
  EXPECT_EQ(messages[1], std::string(kPrefix) + "Failed to mount('/dev/sda2') onto '" + directory +
                             "'. No such device");
  EXPECT_EQ(messages[2],
            std::string(kPrefix) + "No mount point for the volume uuid: '" + kUUID + "'");
  for (const auto& call : platform_.mounts().calls())
    EXPECT_NE(call.operation, "removeDirectory");
}

TEST_F(QSVolumeUtilitiesTest, ADirectoryThatCannotBeMadeLogsTwoLinesAndMountsNothing) {
  addVolume();
  platform_.mounts().onCall([&](const FakeMounts::Call& call) {
    if (call.operation == "makeDirectory") {
      platform_.mounts().fail("makeDirectory", call.path, ENOENT);
    }
  });
  EXPECT_FALSE(mountPoint(true));
  const auto messages = errors();
  ASSERT_EQ(messages.size(), 3u);
  EXPECT_TRUE(messages[1].starts_with(std::string(kPrefix) + "Failed to mkdir('/private/tmp/"));
  EXPECT_TRUE(messages[1].ends_with("'). No such file or directory"));
  EXPECT_EQ(platform_.mounts().calls().size(), 1u);
}

TEST_F(QSVolumeUtilitiesTest, UnmountsWithAndWithoutForceAndHandsTheErrorOn) {
  platform_.mounts().add("/dev/sda2", "/a");
  platform_.mounts().fail("unmount", "/a", EBUSY);
  QSError error;
  EXPECT_FALSE(QSVolumeUtilities::unmountVolumeAtPath("/a", false, &error));
  EXPECT_EQ(error.domain, kPOSIXErrorDomain);
  EXPECT_EQ(error.code, EBUSY);
  EXPECT_FALSE(error.filePath);
  EXPECT_FALSE(QSVolumeUtilities::unmountVolumeAtPath("/a", true, nullptr));
  platform_.mounts().fail("unmount", "/a", 0);
  EXPECT_TRUE(QSVolumeUtilities::unmountVolumeAtPath("/a", true, nullptr));
  const auto calls = platform_.mounts().calls();
  EXPECT_FALSE(calls[0].force);
  EXPECT_TRUE(calls[2].force);
  EXPECT_TRUE(errors().empty());
}

TEST_F(QSVolumeUtilitiesTest, PerformsInTheGroupWithTheMountPoint) {
  addVolume();
  platform_.mounts().add("/dev/sda2", "/volume");
  const auto group = platform_.workQueues().makeGroup();
  std::optional<std::string> seen;
  QOSClass qos{};
  QSVolumeUtilities::EnsureVolumeIsMountedWithVolumeUUID(
      kUUID,
      [&](const std::optional<std::string>& path, bool didMount) {
        seen = path;
        qos = currentQOS();
        EXPECT_FALSE(didMount);
      },
      true, group, QOSClass::utility);
  group->wait();
  EXPECT_EQ(seen, "/volume");
  EXPECT_EQ(qos, QOSClass::utility);
}

TEST_F(QSVolumeUtilitiesTest, WithoutAMountPointPerformsOnlyWhenItMay) {
  for (const bool onlyIfAvailable : {true, false}) {
    const auto group = platform_.workQueues().makeGroup();
    int calls = 0;
    QSVolumeUtilities::EnsureVolumeIsMountedWithVolumeUUID(
        kUUID,
        [&](const std::optional<std::string>& path, bool didMount) {
          ++calls;
          EXPECT_FALSE(path);
          EXPECT_FALSE(didMount);
        },
        onlyIfAvailable, group, QOSClass::utility);
    group->wait();  // left in either case
    EXPECT_EQ(calls, onlyIfAvailable ? 0 : 1);
  }
}

TEST_F(QSVolumeUtilitiesTest, ListsTheVolumesOfARole) {
  addVolume("sda2", 16);
  platform_.deviceRegistry().add("", kClass,
                                 {{"UUID", std::string("B")}, {"RoleValue", std::int64_t{16}}});
  platform_.deviceRegistry().add("", kClass,
                                 {{"UUID", std::int64_t{1}}, {"RoleValue", std::int64_t{16}}});
  platform_.deviceRegistry().add("", kClass,
                                 {{"UUID", std::string("C")}, {"RoleValue", std::int64_t{192}}});
  EXPECT_EQ(QSVolumeUtilities::VellumVolumeUUIDsRestrictedToRole(16),
            (std::vector<std::string>{kUUID, "B"}));
  EXPECT_EQ(QSVolumeUtilities::VellumVolumeUUIDsRestrictedToRole(320), std::vector<std::string>{});
  platform_.deviceRegistry().setUnreachable(true);
  EXPECT_FALSE(QSVolumeUtilities::VellumVolumeUUIDsRestrictedToRole(16));
  EXPECT_TRUE(errors().empty());
}

TEST_F(QSVolumeUtilitiesTest, ReadsTheRegistryAgainWhenItChangedButNotForEver) {
  addVolume();
  platform_.deviceRegistry().spoilNextPasses(4);  // the one before the first reset counts
  EXPECT_EQ(QSVolumeUtilities::VellumVolumeUUIDsRestrictedToRole(16)->size(), 1u);
  EXPECT_EQ(platform_.deviceRegistry().resets(), 4u);
  platform_.deviceRegistry().spoilNextPasses(100);
  EXPECT_EQ(QSVolumeUtilities::VellumVolumeUUIDsRestrictedToRole(16)->size(), 1u);
  EXPECT_EQ(platform_.deviceRegistry().resets(), 14u);
}

}  // namespace
}  // namespace quillsift
