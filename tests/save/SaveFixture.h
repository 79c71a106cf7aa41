#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/LinuxOutputFiles.h"
#include "save/ArchiveWriter.h"
#include "tests/doubles/RecordingSaveHost.h"
#include "tests/doubles/TestPlatform.h"
#include "tests/save/ArchiveReaders.h"
#include "tests/save/SavedJobs.h"
#include "tests/save/ScratchDirectory.h"

namespace quillsift {

// Saves into a directory of its own. No test may leave a descriptor open.
class SaveFixture : public ::testing::Test {
 protected:
  using Report = RecordingSaveHost::Report;

  SaveFixture() { std::setlocale(LC_CTYPE, "C.UTF-8"); }
  ~SaveFixture() override {
    EXPECT_EQ(openDescriptors(), descriptorsBefore_);
    std::setlocale(LC_CTYPE, "C");
  }

  // For the tests of what only the real file operations do.
  void useTheRealFiles() { Platform::current().outputFiles = std::make_unique<LinuxOutputFiles>(); }

  bool save(bool collectSensitiveFiles = true) {
    return writeArchive(destination_, collectSensitiveFiles, host_);
  }

  void expectFailedSave() {
    EXPECT_FALSE(save());
    ASSERT_FALSE(host_.reports.empty());
    EXPECT_EQ(host_.reports.back(), (Report{-1.0, SaveProgressState::failed, temporary()}));
    const auto ends = std::count_if(host_.reports.begin(), host_.reports.end(), [](const auto& r) {
      return r.state == SaveProgressState::failed || r.state == SaveProgressState::finished;
    });
    EXPECT_EQ(ends, 1);
  }

  void expectFinishedSave() {
    EXPECT_TRUE(save());
    ASSERT_FALSE(host_.reports.empty());
    EXPECT_EQ(host_.reports.back(), (Report{1.0, SaveProgressState::finished, destination_}));
    EXPECT_FALSE(existsAt(temporary()));
  }

  void expectNothingLeft() {
    EXPECT_FALSE(existsAt(temporary()));
    EXPECT_FALSE(existsAt(destination_));
  }

  std::string temporary() const { return destination_ + ".inprogress"; }

  static std::size_t openDescriptors() {
    std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
  }

  TestPlatform platform_;
  ScratchDirectory scratch_;
  RecordingSaveHost host_;
  std::string destination_ = scratch_ / "out.tgz";

 private:
  const std::size_t descriptorsBefore_ = openDescriptors();
};

}  // namespace quillsift
