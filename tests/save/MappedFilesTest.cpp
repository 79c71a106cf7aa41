// Saves of log files that were mapped when they were captured and change until they are saved.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "jobs/QSFileAttributes.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/LinuxOutputTrees.h"
#include "save/DirectoryWriter.h"
#include "tests/save/SaveFixture.h"

namespace quillsift {
namespace {

class MappedFilesTest : public SaveFixture {
 protected:
  MappedFilesTest() {
    useTheRealFiles();
    Platform::current().outputTrees = std::make_unique<LinuxOutputTrees>();
    Platform::current().fileSystem =
        std::make_unique<LinuxFileSystem>(std::make_shared<const PlatformTree>(""));
  }

  // The job that copies a file with this content.
  std::shared_ptr<QSJob> capturedJob(const std::string& name, const std::string& content) {
    const std::string path = scratch_ / name;
    writeFile(path, content);
    const auto attributes = QSFileAttributes::fileAttributesForPath(path, 0, nullptr);
    auto data = attributes->readFileReturningDataWithError(nullptr);
    EXPECT_TRUE(data.has_value());
    return finishedJob(name, std::make_shared<QSJobEntry>(std::move(data), *attributes));
  }

  static std::string cutOff(const std::string& text, std::size_t length) {
    return text.substr(0, length) + std::string(text.size() - length, '\0');
  }

  const std::string text_ = noise(3'000'000);
};

TEST_F(MappedFilesTest, AnArchiveHasACutFileAtItsRecordedLength) {
  host_.jobs = {capturedJob("a.log", text_), capturedJob("b.log", text_)};
  ASSERT_EQ(::truncate((scratch_ / "a.log").c_str(), 1'234'567), 0);
  ASSERT_EQ(::truncate((scratch_ / "b.log").c_str(), 0), 0);
  expectFinishedSave();
  const auto members = membersOf(destination_);
  ASSERT_EQ(members.size(), 2U);
  EXPECT_TRUE(members[0].data == cutOff(text_, 1'234'567));
  EXPECT_TRUE(members[1].data == cutOff(text_, 0));
}

TEST_F(MappedFilesTest, ADirectoryHasACutFileAtItsRecordedLength) {
  host_.jobs = {capturedJob("a.log", text_), capturedJob("b.log", text_)};
  ASSERT_EQ(::truncate((scratch_ / "a.log").c_str(), 1'234'567), 0);
  std::filesystem::remove(scratch_ / "b.log");
  ASSERT_TRUE(writeDirectory(scratch_ / "out", true, host_));
  EXPECT_TRUE(contentOf(scratch_ / "out/a.log") == cutOff(text_, 1'234'567));
  EXPECT_TRUE(contentOf(scratch_ / "out/b.log") == text_);
}

TEST_F(MappedFilesTest, FilesThatAreCutAndGrowDuringASaveEndIt) {
  host_.jobs = {capturedJob("a.log", text_)};
  std::atomic<bool> saved = false;
  std::thread owner([&] {
    while (!saved) {
      std::error_code ignored;
      std::filesystem::resize_file(scratch_ / "a.log", 10, ignored);
      std::filesystem::resize_file(scratch_ / "a.log", 2'999'999, ignored);
    }
  });
  for (int round = 0; round < 3; ++round) {
    EXPECT_TRUE(save());
    EXPECT_TRUE(writeDirectory(scratch_ / "out", true, host_));
  }
  saved = true;
  owner.join();
  EXPECT_EQ(membersOf(destination_).at(0).data.size(), text_.size());
  EXPECT_EQ(contentOf(scratch_ / "out/a.log").size(), text_.size());
}

TEST_F(MappedFilesTest, ASaveOverTheCapturedFileItselfKeepsTheRecordedLength) {
  host_.jobs = {capturedJob("a.log", text_)};
  ASSERT_TRUE(writeDirectory(scratch_.path(), true, host_));
  EXPECT_EQ(contentOf(scratch_ / "a.log").size(), text_.size());
}

}  // namespace
}  // namespace quillsift
