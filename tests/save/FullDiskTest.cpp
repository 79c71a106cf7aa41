// Saves with the real file operations where the file system does not play along.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/FileDescriptor.h"
#include "tests/save/SaveFixture.h"

namespace quillsift {
namespace {

class FullDiskTest : public SaveFixture {
 protected:
  static constexpr std::size_t kDiskSize = 1 << 20;

  void SetUp() override {
    useTheRealFiles();
    const std::string options = "size=" + std::to_string(kDiskSize) + ",mode=0755";
    std::filesystem::create_directory(disk_);
    mounted_ = ::mount("tmpfs", disk_.c_str(), "tmpfs", 0, options.c_str()) == 0;
    if (!mounted_) GTEST_SKIP() << "mounting a small file system takes root";
    destination_ = disk_ + "/out.tgz";
  }

  ~FullDiskTest() override {
    if (!mounted_) return;
    EXPECT_EQ(::umount2(disk_.c_str(), MNT_DETACH), 0);
  }

  std::size_t usedBytes() const {
    std::error_code ignored;
    const auto space = std::filesystem::space(disk_, ignored);
    return space.capacity - space.free;
  }

  // Leaves that many bytes free.
  void fillUpTo(std::size_t free) {
    writeFile(disk_ + "/filler", noise(kDiskSize - free));
    ASSERT_EQ(usedBytes(), kDiskSize - free);
  }

  const std::string disk_ = scratch_ / "disk";
  bool mounted_ = false;
};

TEST_F(FullDiskTest, ALargeArchiveFailsOnTheWayAndGivesTheSpaceBack) {
  host_.jobs = {finishedJob("fits", noise(300'000)), finishedJob("does not", noise(2'000'000))};
  expectFailedSave();
  EXPECT_EQ(platform_.systemLog().messages(),
            std::vector<std::string>{"Failed to archive file for individual job:does not "
                                     "withLength:2000000"});
  expectNothingLeft();
  EXPECT_EQ(usedBytes(), 0U);
}

TEST_F(FullDiskTest, ASmallArchiveFailsAtItsClose) {
  fillUpTo(0);
  host_.jobs = {finishedJob("small", "text")};
  expectFailedSave();
  ASSERT_EQ(platform_.systemLog().messages().size(), 1U);
  EXPECT_TRUE(platform_.systemLog().contains("Failed to close archive on: " + temporary()));
  EXPECT_TRUE(platform_.systemLog().contains("No space left on device"));
  expectNothingLeft();
}

TEST_F(FullDiskTest, AnArchiveThatJustFitsIsSaved) {
  fillUpTo(64 * 1024);
  host_.jobs = {finishedJob("fits", noise(50'000))};
  expectFinishedSave();
  EXPECT_EQ(memberNamesOf(destination_), std::vector<std::string>{"fits"});
}

class OddDestinationTest : public SaveFixture {
 protected:
  static constexpr uid_t kNobody = 65534;

  void SetUp() override { useTheRealFiles(); }
};

TEST_F(OddDestinationTest, APipeAtTheTemporaryPathFailsTheSaveAndHoldsNobodyUp) {
  ASSERT_EQ(::mkfifo(temporary().c_str(), 0600), 0);
  host_.jobs = {finishedJob("large", noise(2'000'000))};
  expectFailedSave();
  expectNothingLeft();
}

TEST_F(OddDestinationTest, ADirectoryAtTheTemporaryPathFailsTheOpen) {
  std::filesystem::create_directory(temporary());
  expectFailedSave();
  EXPECT_TRUE(platform_.systemLog().messages().empty());
  EXPECT_TRUE(existsAt(temporary()));
}

TEST_F(OddDestinationTest, ADirectoryWithoutPermissionFailsTheOpen) {
  ASSERT_EQ(::chmod(scratch_.path().c_str(), 0500), 0);
  const uid_t self = ::geteuid();
  if (self == 0) {  // who may write everywhere
    ASSERT_EQ(::seteuid(kNobody), 0);
  }
  expectFailedSave();
  ASSERT_EQ(::seteuid(self), 0);
  ASSERT_EQ(::chmod(scratch_.path().c_str(), 0700), 0);
  EXPECT_TRUE(platform_.systemLog().messages().empty());
  expectNothingLeft();
}

TEST_F(OddDestinationTest, TheRootDirectoryIsNotReplaced) {
  destination_ = "/";
  EXPECT_FALSE(save());
  EXPECT_EQ(host_.reports.back(), (Report{-1.0, SaveProgressState::failed, "/.inprogress"}));
  EXPECT_FALSE(existsAt("/.inprogress"));
}

TEST_F(OddDestinationTest, ADirectoryThatMovedAwayFailsTheSave) {
  destination_ = scratch_ / "sub/out.tgz";
  std::filesystem::create_directory(scratch_ / "sub");
  host_.onReport = [&](const Report& report) {
    if (report.progress == 1.0) std::filesystem::rename(scratch_ / "sub", scratch_ / "moved");
  };
  expectFailedSave();
  expectNothingLeft();
  EXPECT_FALSE(existsAt(scratch_ / "moved/out.tgz"));
}

}  // namespace
}  // namespace quillsift
