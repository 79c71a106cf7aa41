#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <new>
#include <stdexcept>

#include "platform/Text.h"
#include "save/DirectoryWriter.h"
#include "tests/doubles/RecordingSaveHost.h"
#include "tests/doubles/TestPlatform.h"
#include "tests/save/SavedJobs.h"

namespace quillsift {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using testing::StartsWith;
using testing::UnorderedElementsAre;
using Report = RecordingSaveHost::Report;
using Call = MemoryOutputTrees::Call;

class DirectoryWriterTest : public testing::Test {
 protected:
  MemoryOutputTrees& trees() { return platform_.outputTrees(); }
  std::vector<std::string> log() { return platform_.systemLog().messages(); }

  bool save(bool collectSensitiveFiles = true) {
    return writeDirectory("/d", collectSensitiveFiles, host_);
  }

  void expectFailedSave() {
    EXPECT_FALSE(save());
    ASSERT_FALSE(host_.reports.empty());
    EXPECT_EQ(host_.reports.back(), (Report{-1.0, SaveProgressState::failed, "/d"}));
  }

  // What is left after a save that failed on its way.
  void expectEverythingRemoved() {
    EXPECT_THAT(trees().files(), IsEmpty());
    EXPECT_THAT(trees().directories(), IsEmpty());
  }

  std::string textOf(const std::string& path) { return trees().files().at(path).content; }

  TestPlatform platform_;
  RecordingSaveHost host_;
};

TEST_F(DirectoryWriterTest, ReportsEachStep) {
  for (int i = 0; i < 10; ++i)
    host_.jobs.push_back(finishedJob("job " + std::to_string(i), "text"));
  EXPECT_TRUE(save());
  ASSERT_EQ(host_.reports.size(), 12U);
  EXPECT_EQ(host_.reports[0], (Report{0.0, SaveProgressState::started, "/d"}));
  for (unsigned i = 0; i < 10; ++i) {
    const double expected = static_cast<double>(static_cast<float>(i) / 10.0F) + 0.05;
    EXPECT_EQ(host_.reports[i + 1], (Report{expected, SaveProgressState::progress, "/d"}));
  }
  EXPECT_NEAR(host_.reports[10].progress, 0.95, 1e-6);
  EXPECT_EQ(host_.reports[11], (Report{1.0, SaveProgressState::finished, "/d"}));
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(DirectoryWriterTest, NeverReportsMoreThanAll) {
  for (int i = 0; i < 40; ++i)
    host_.jobs.push_back(finishedJob(std::to_string(i), "text"));
  EXPECT_TRUE(save());
  EXPECT_EQ(host_.reports[40], (Report{1.0, SaveProgressState::progress, "/d"}));
}

TEST_F(DirectoryWriterTest, MakesAnEmptyDirectoryForASessionWithoutJobs) {
  EXPECT_TRUE(save());
  EXPECT_THAT(host_.reports, ElementsAre(Report{0.0, SaveProgressState::started, "/d"},
                                         Report{1.0, SaveProgressState::finished, "/d"}));
  EXPECT_THAT(trees().directories(), ElementsAre("/d"));
  EXPECT_THAT(trees().files(), IsEmpty());
}

TEST_F(DirectoryWriterTest, WritesEachResultAtItsPath) {
  host_.jobs = {finishedJob("lsof.txt", "files"), finishedJob("Logs/install.log", "installed"),
                finishedJob("/drreg/DrService.txt", "devices")};
  EXPECT_TRUE(save());
  EXPECT_THAT(trees().files(), UnorderedElementsAre(Key("/d/lsof.txt"), Key("/d/Logs/install.log"),
                                                    Key("/d/drreg/DrService.txt")));
  EXPECT_EQ(textOf("/d/drreg/DrService.txt"), "devices");
  EXPECT_THAT(
      trees().calls(),
      ElementsAre(Call{"makeDirectory", "/d"}, Call{"makeParentOf", "/d/lsof.txt"},
                  Call{"writeFile", "/d/lsof.txt"}, Call{"makeParentOf", "/d/Logs/install.log"},
                  Call{"writeFile", "/d/Logs/install.log"},
                  Call{"makeParentOf", "/d/drreg/DrService.txt"},
                  Call{"writeFile", "/d/drreg/DrService.txt"}));
}

TEST_F(DirectoryWriterTest, PassesOnTheMetadataOfTheResult) {
  host_.jobs = {finishedJob("own", "1"),
                finishedJob("copied", entryFrom({.accessMask = 0106751,
                                                 .ownerID = 501,
                                                 .groupID = 80,
                                                 .extendedAttributes = {{"user.note", "kept"}}},
                                                "2"))};
  EXPECT_TRUE(save());
  const OutputFileAttributes own = trees().files().at("/d/own").attributes;
  EXPECT_EQ(own.mode, 0644);
  EXPECT_EQ(own.ownerID, 0U);
  EXPECT_EQ(own.groupID, host_.jobs[0]->resultEntry()->fileGID());
  EXPECT_THAT(own.extendedAttributes, IsEmpty());
  const OutputFileAttributes copied = trees().files().at("/d/copied").attributes;
  EXPECT_EQ(copied.mode, 06751);
  EXPECT_EQ(copied.ownerID, 501U);
  EXPECT_EQ(copied.groupID, 80U);
  ASSERT_THAT(copied.extendedAttributes, ElementsAre(Key("user.note")));
  EXPECT_EQ(copied.extendedAttributes.at("user.note").text(), "kept");
}

TEST_F(DirectoryWriterTest, LeavesOutJobsWithoutOutputButCountsThem) {
  const auto neverRun = std::make_shared<QSJob>(
      [](std::shared_ptr<const QSJobEntry>*, QSError*) { return true; }, "never run");
  host_.jobs = {neverRun,
                finishedJob("no entry", std::shared_ptr<const QSJobEntry>()),
                finishedJob("no data", std::make_shared<QSJobEntry>(std::nullopt)),
                finishedJob("empty", ""),
                finishedJob("../refused if it had any", ""),
                finishedJob("kept", "text")};
  EXPECT_TRUE(save());
  EXPECT_THAT(trees().files(), ElementsAre(Key("/d/kept")));
  EXPECT_EQ(host_.reports.size(), 6U + 2U);
}

TEST_F(DirectoryWriterTest, LeavesOutSensitiveJobsUnlessAskedForThem) {
  host_.jobs = {finishedJob("secret", "1"), finishedJob("public", "2")};
  host_.jobs[0]->setSensitive(true);
  host_.jobs[1]->setSensitive(false);
  EXPECT_TRUE(save(false));
  EXPECT_THAT(trees().files(), ElementsAre(Key("/d/public")));
  EXPECT_EQ(host_.reports.size(), 2U + 2U);
  EXPECT_TRUE(save(true));
  EXPECT_THAT(trees().files(), UnorderedElementsAre(Key("/d/secret"), Key("/d/public")));
}

TEST_F(DirectoryWriterTest, KeepsTheLaterOfTwoResultsOfOnePath) {
  host_.jobs = {finishedJob("a", "first"), finishedJob("b", "other"), finishedJob("/a", "second")};
  EXPECT_TRUE(save());
  EXPECT_EQ(textOf("/d/a"), "second");
}

TEST_F(DirectoryWriterTest, KeepsWhatWasInTheDirectory) {
  trees().addFile("/d/before", "old");
  host_.jobs = {finishedJob("a", "new")};
  EXPECT_TRUE(save());
  EXPECT_EQ(textOf("/d/before"), "old");
}

TEST_F(DirectoryWriterTest, WritesTenThousandJobs) {
  for (int i = 0; i < 10'000; ++i)
    host_.jobs.push_back(finishedJob(formatted("jobs/%05d.txt", i), std::to_string(i)));
  EXPECT_TRUE(save());
  EXPECT_EQ(trees().files().size(), 10'000U);
  EXPECT_EQ(host_.reports.size(), 10'000U + 2U);
}

TEST_F(DirectoryWriterTest, CopiesTheJobsOnceAndOnlyWhenTheDirectoryIsMade) {
  host_.onCopyJobs = [&] { EXPECT_THAT(trees().directories(), ElementsAre("/d")); };
  EXPECT_TRUE(save());
  EXPECT_EQ(host_.copies, 1);
}

TEST_F(DirectoryWriterTest, FailsWithoutTouchingAnythingWhenTheDirectoryCannotBeMade) {
  trees().addFile("/d/before", "old");
  trees().fail("makeDirectory", EACCES);
  host_.jobs = {finishedJob("a", "new")};
  expectFailedSave();
  EXPECT_THAT(host_.reports, ElementsAre(Report{0.0, SaveProgressState::started, "/d"},
                                         Report{-1.0, SaveProgressState::failed, "/d"}));
  EXPECT_THAT(log(), ElementsAre("Failed to create quillsift directory at /d error: POSIX 13: "
                                 "Permission denied (path: /d)"));
  EXPECT_EQ(host_.copies, 0);
  EXPECT_EQ(textOf("/d/before"), "old");
}

TEST_F(DirectoryWriterTest, RemovesEverythingWhenAParentCannotBeMade) {
  trees().addFile("/d/before", "old");
  trees().fail("makeParentOf", "/d/Logs/sub/b", EROFS);
  host_.jobs = {finishedJob("a", "1"), finishedJob("/Logs/sub/b", "2"), finishedJob("c", "3")};
  expectFailedSave();
  EXPECT_THAT(log(), ElementsAre("Failed to create sub-directory at /d/Logs/sub error: POSIX 30: "
                                 "Read-only file system (path: /d/Logs/sub)"));
  expectEverythingRemoved();
  EXPECT_EQ(host_.reports.size(), 1U + 2U + 1U);  // the third job is not come to
}

TEST_F(DirectoryWriterTest, RemovesEverythingWhenAFileCannotBeWritten) {
  trees().addFile("/d/before", "old");
  trees().fail("writeFile", "/d/Logs/b", ENOSPC);
  host_.jobs = {finishedJob("a", "1"), finishedJob("/Logs/b", "four"), finishedJob("c", "3")};
  expectFailedSave();
  EXPECT_THAT(log(),
              ElementsAre("Failed to save file for individual job:/Logs/b withLength:4 error: "
                          "POSIX 28: No space left on device (path: /d/Logs/b)"));
  expectEverythingRemoved();
  EXPECT_EQ(trees().calls().back(), (Call{"removeWithEverything", "/d"}));
}

TEST_F(DirectoryWriterTest, LogsWithTheInstallationFacilityAtErrorPriority) {
  trees().fail("writeFile", EIO);
  host_.jobs = {finishedJob("a", "1")};
  expectFailedSave();
  EXPECT_THAT(platform_.systemLog().lines(),
              ElementsAre(testing::Field(&LogLine::priorityWord, 115)));
}

TEST_F(DirectoryWriterTest, FailsWhereAFileStandsForAParent) {
  host_.jobs = {finishedJob("a", "file"), finishedJob("a/b", "below")};
  expectFailedSave();
  EXPECT_THAT(log(), ElementsAre(StartsWith("Failed to save file for individual job:a/b ")));
  expectEverythingRemoved();
}

TEST_F(DirectoryWriterTest, RefusesToLeaveTheDirectory) {
  for (const char* path : {"../a", "Logs/../../a", "..", "a/.."}) {
    host_.jobs = {finishedJob("fine", "1"), finishedJob(path, "22")};
    expectFailedSave();
    EXPECT_THAT(log().back(), StartsWith(formatted("Failed to save file for individual job:%s "
                                                   "withLength:2 error: POSIX 22: ",
                                                   path)));
    expectEverythingRemoved();
  }
}

TEST_F(DirectoryWriterTest, ReportsOneFailureAndRemovesEverythingWhenSomethingThrows) {
  trees().onCall([](const Call& call) {
    if (call.operation == "writeFile") throw std::bad_alloc();
  });
  host_.jobs = {finishedJob("a", "1")};
  expectFailedSave();
  EXPECT_THAT(log(), ElementsAre(StartsWith("Failed to save directory: /d. ")));
  expectEverythingRemoved();
}

TEST_F(DirectoryWriterTest, KeepsACompleteTreeWhoseEndCannotBeReported) {
  host_.jobs = {finishedJob("a", "text")};
  host_.onReport = [](const Report& report) {
    if (report.state == SaveProgressState::finished) throw std::bad_alloc();
  };
  EXPECT_THROW(writeDirectory("/d", true, host_), std::bad_alloc);
  EXPECT_TRUE(trees().files().contains("/d/a"));
  EXPECT_EQ(host_.reports.back(), (Report{1.0, SaveProgressState::finished, "/d"}));
}

TEST_F(DirectoryWriterTest, MakesNothingWhenTheStartCannotBeReported) {
  host_.onReport = [](const Report& report) {
    if (report.state == SaveProgressState::started) throw std::runtime_error("no");
  };
  expectFailedSave();
  EXPECT_THAT(trees().calls(), IsEmpty());
}

TEST_F(DirectoryWriterTest, TakesTheDestinationAsItIsWritten) {
  host_.jobs = {finishedJob("a", "1")};
  EXPECT_TRUE(writeDirectory("/d//", true, host_));
  EXPECT_EQ(host_.reports.back(), (Report{1.0, SaveProgressState::finished, "/d//"}));
  EXPECT_THAT(trees().files(), ElementsAre(Key("/d/a")));
}

}  // namespace
}  // namespace quillsift
