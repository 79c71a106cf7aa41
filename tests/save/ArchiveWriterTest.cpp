#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <stdexcept>

#include "platform/Text.h"
#include "save/ArchiveWriter.h"
#include "tests/save/SaveFixture.h"

namespace quillsift {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class ArchiveWriterTest : public SaveFixture {
 protected:
  std::vector<std::string> log() { return platform_.systemLog().messages(); }

  // The descriptor that an operation was called with, the first time.
  int descriptorOf(const std::string& operation) {
    for (const auto& call : platform_.outputFiles().calls()) {
      if (call.operation == operation) return call.descriptor;
    }
    ADD_FAILURE() << operation << " was not called";
    return -1;
  }

  // Runs once, right before that operation.
  void before(const std::string& operation, std::function<void()> action) {
    platform_.outputFiles().onCall([=, done = false](const auto& call) mutable {
      if (call.operation != operation || std::exchange(done, true)) return;
      action();
    });
  }
};

TEST_F(ArchiveWriterTest, ReportsEachStep) {
  host_.jobs = {finishedJob("a", "1"), finishedJob("b", "2"), finishedJob("c", "3")};
  EXPECT_TRUE(save());
  const std::string temporary = scratch_ / "out.tgz.inprogress";
  EXPECT_THAT(host_.reports,
              ElementsAre(Report{0.0, SaveProgressState::started, temporary},
                          Report{0.0, SaveProgressState::progress, temporary},
                          Report{0.3333333432674408, SaveProgressState::progress, temporary},
                          Report{0.6666666865348816, SaveProgressState::progress, temporary},
                          Report{1.0, SaveProgressState::progress, temporary},
                          Report{1.0, SaveProgressState::finished, scratch_ / "out.tgz"}));
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ArchiveWriterTest, WritesAnEmptyArchiveForASessionWithoutJobs) {
  EXPECT_TRUE(save());
  EXPECT_THAT(host_.reports, ElementsAre(Report{0.0, SaveProgressState::started, temporary()},
                                         Report{1.0, SaveProgressState::progress, temporary()},
                                         Report{1.0, SaveProgressState::finished, destination_}));
  EXPECT_THAT(membersOf(destination_), IsEmpty());
  EXPECT_FALSE(existsAt(temporary()));
}

TEST_F(ArchiveWriterTest, LeavesOutJobsWithoutOutputButCountsThem) {
  const auto neverRun = std::make_shared<QSJob>(
      [](std::shared_ptr<const QSJobEntry>*, QSError*) { return true; }, "never run");
  host_.jobs = {neverRun, finishedJob("no entry", std::shared_ptr<const QSJobEntry>()),
                finishedJob("no data", std::make_shared<QSJobEntry>(std::nullopt)),
                finishedJob("empty", ""), finishedJob("kept", "text")};
  expectFinishedSave();
  EXPECT_THAT(memberNamesOf(destination_), ElementsAre("kept"));
  EXPECT_EQ(host_.reports.size(), 5U + 3U);
  EXPECT_EQ(host_.reports[5].progress, static_cast<double>(4.0F / 5.0F));
}

TEST_F(ArchiveWriterTest, LeavesOutSensitiveJobsUnlessAskedForThem) {
  host_.jobs = {finishedJob("secret", "1"), finishedJob("public", "2")};
  host_.jobs[0]->setSensitive(true);
  host_.jobs[1]->setSensitive(false);
  EXPECT_TRUE(save(false));
  EXPECT_THAT(memberNamesOf(destination_), ElementsAre("public"));
  EXPECT_EQ(host_.reports.size(), 2U + 3U);
  EXPECT_TRUE(save(true));
  EXPECT_THAT(memberNamesOf(destination_), ElementsAre("secret", "public"));
}

TEST_F(ArchiveWriterTest, KeepsOrderSlashesAndEqualNames) {
  host_.jobs = {finishedJob("z", "1"), finishedJob("/drreg/DrService.txt", "2"),
                finishedJob("a", "3"), finishedJob("z", "4")};
  expectFinishedSave();
  EXPECT_THAT(memberNamesOf(destination_), ElementsAre("z", "/drreg/DrService.txt", "a", "z"));
  EXPECT_EQ(membersOf(destination_).at(3).data, "4");
}

TEST_F(ArchiveWriterTest, GivesAMemberTheTimesOfItsJob) {
  platform_.hostInformation().setRealTime({1'700'000'000, 250'000'000});
  host_.jobs = {finishedJob("dated", entryFrom({}, "1"))};
  platform_.hostInformation().setRealTime({-5, 0});
  host_.jobs.push_back(finishedJob("before 1970", entryFrom({}, "2")));
  expectFinishedSave();
  const auto members = membersOf(destination_);
  ASSERT_EQ(members.size(), 2U);
  EXPECT_EQ(members[0].line, "dated|0|1|644|0|0|||1700000001250000000|1700000000250000000|-|-");
  EXPECT_EQ(members[1].line, "before 1970|0|1|644|0|0|||0|-|-|-");
}

TEST_F(ArchiveWriterTest, WritesTenThousandJobs) {
  std::vector<std::string> names;
  for (int i = 0; i < 10'000; ++i) {
    names.push_back(formatted("jobs/%05d.txt", i));
    host_.jobs.push_back(finishedJob(names.back(), "job " + std::to_string(i)));
  }
  expectFinishedSave();
  EXPECT_EQ(host_.reports.size(), 10'000U + 3U);
  EXPECT_EQ(memberNamesOf(destination_), names);
}

TEST_F(ArchiveWriterTest, MakesTheArchiveCompleteBeforeItGetsItsName) {
  host_.jobs = {finishedJob("a", "text")};
  before("renameAt", [&] {
    EXPECT_FALSE(existsAt(destination_));
    EXPECT_THAT(memberNamesOf(temporary()), ElementsAre("a"));
  });
  expectFinishedSave();
  EXPECT_THAT(platform_.outputFiles().operations(),
              ElementsAre("openForWriting", "disableCaching", "truncateAtPosition", "flush",
                          "leadsToFile", "renameAt", "flush", "flushToMedium", "flushDirectoryOf"));
}

TEST_F(ArchiveWriterTest, RenamesWithTheArchiveAndFourAsDirectories) {
  expectFinishedSave();
  const auto calls = platform_.outputFiles().calls();
  const auto rename = std::find_if(calls.begin(), calls.end(),
                                   [](const auto& call) { return call.operation == "renameAt"; });
  ASSERT_NE(rename, calls.end());
  EXPECT_EQ(rename->path, temporary());
  EXPECT_EQ(rename->target, destination_);
  EXPECT_EQ(rename->descriptor, descriptorOf("disableCaching"));
  EXPECT_EQ(rename->targetDescriptor, 4);
}

TEST_F(ArchiveWriterTest, CopiesTheJobsOnceAndOnlyWhenTheArchiveIsOpen) {
  host_.onCopyJobs = [&] { EXPECT_TRUE(existsAt(temporary())); };
  expectFinishedSave();
  EXPECT_EQ(host_.copies, 1);
  platform_.outputFiles().fail("openForWriting", EACCES);
  EXPECT_FALSE(save());
  EXPECT_EQ(host_.copies, 1);
}

TEST_F(ArchiveWriterTest, GivesTheArchiveTheUsualMode) {
  expectFinishedSave();
  const mode_t mask = ::umask(0);
  ::umask(mask);
  struct stat status;
  ASSERT_EQ(::stat(destination_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0666 & ~mask);
}

TEST_F(ArchiveWriterTest, DropsTrailingSlashesOfTheDestination) {
  EXPECT_TRUE(writeArchive(destination_ + "//", true, host_));
  EXPECT_EQ(host_.reports.front().path, temporary());
  EXPECT_EQ(host_.reports.back().path, destination_);
  EXPECT_TRUE(existsAt(destination_));
}

TEST_F(ArchiveWriterTest, ReplacesAnOlderArchive) {
  writeFile(destination_, "older");
  host_.jobs = {finishedJob("a", "text")};
  expectFinishedSave();
  EXPECT_THAT(memberNamesOf(destination_), ElementsAre("a"));
}

TEST_F(ArchiveWriterTest, WritesOverALongerLeftoverAndCutsItOnlyAtTheEnd) {
  const std::string leftover(1'000'000, 'x');
  writeFile(temporary(), leftover);
  struct stat old;
  ASSERT_EQ(::stat(temporary().c_str(), &old), 0);
  before("truncateAtPosition", [&] {
    const std::string content = contentOf(temporary());
    EXPECT_EQ(content.size(), leftover.size());
    EXPECT_TRUE(content.starts_with("\x1f\x8b"));
  });
  host_.jobs = {finishedJob("a", "text")};
  expectFinishedSave();
  struct stat written;
  ASSERT_EQ(::stat(destination_.c_str(), &written), 0);
  EXPECT_EQ(written.st_ino, old.st_ino);
  EXPECT_LT(written.st_size, 10'000);
  const CommandResult tested = runCommand("gzip -t " + destination_);
  EXPECT_EQ(tested.status, 0);
  EXPECT_EQ(tested.output, "");
  EXPECT_THAT(memberNamesOf(destination_), ElementsAre("a"));
}

// ---- Failures

TEST_F(ArchiveWriterTest, AFailedOpenIsReportedButNotLogged) {
  destination_ = scratch_ / "missing/out.tgz";
  EXPECT_FALSE(save());
  EXPECT_THAT(host_.reports, ElementsAre(Report{0.0, SaveProgressState::started, temporary()},
                                         Report{-1.0, SaveProgressState::failed, temporary()}));
  EXPECT_THAT(log(), IsEmpty());
  EXPECT_THAT(platform_.outputFiles().operations(), ElementsAre("openForWriting"));
}

TEST_F(ArchiveWriterTest, ANameThatIsTooLongFailsTheOpen) {
  destination_ = scratch_ / std::string(250, 'n');
  expectFailedSave();
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ArchiveWriterTest, LogsAndGoesOnWhenCachingStaysOn) {
  platform_.outputFiles().fail("disableCaching", EINVAL);
  expectFinishedSave();
  EXPECT_THAT(platform_.systemLog().lines(),
              ElementsAre(LogLine{115, "Failed to set F_NOCACHE on: " + temporary()}));
}

// Opens the file but gives a descriptor that is none.
class UnusableFiles : public RecordingOutputFiles {
 public:
  FileDescriptor openForWriting(const std::string& path) override {
    RecordingOutputFiles::openForWriting(path);
    return FileDescriptor(1 << 20);
  }
};

TEST_F(ArchiveWriterTest, AnArchiveThatCannotBeStartedLeavesTheFile) {
  Platform::current().outputFiles = std::make_unique<UnusableFiles>();
  expectFailedSave();
  EXPECT_TRUE(existsAt(temporary()));
  EXPECT_FALSE(existsAt(destination_));
  EXPECT_EQ(host_.copies, 0);
}

// The temporary file is there, but on a disk without room.
class FullDisk : public RecordingOutputFiles {
 public:
  FileDescriptor openForWriting(const std::string& path) override {
    RecordingOutputFiles::openForWriting(path);
    return FileDescriptor(::open("/dev/full", O_RDWR | O_CLOEXEC));
  }
  bool leadsToFile(const std::string&, int) override { return true; }
};

TEST_F(ArchiveWriterTest, AJobThatCannotBeArchivedFailsTheSave) {
  Platform::current().outputFiles = std::make_unique<FullDisk>();
  host_.jobs = {finishedJob("Logs/large.log", noise(2'000'000)), finishedJob("next", "text")};
  expectFailedSave();
  EXPECT_THAT(platform_.systemLog().lines(),
              ElementsAre(LogLine{115,
                                  "Failed to archive file for individual job:Logs/large.log "
                                  "withLength:2000000"}));
  EXPECT_EQ(host_.reports.size(), 3U);
  expectNothingLeft();
}

TEST_F(ArchiveWriterTest, AnArchiveThatFailsOnlyAtItsCloseFailsTheSave) {
  Platform::current().outputFiles = std::make_unique<FullDisk>();
  host_.jobs = {finishedJob("small", "text")};
  expectFailedSave();
  EXPECT_THAT(log(), ElementsAre(StartsWith("Failed to close archive on: " + temporary())));
  EXPECT_EQ(host_.reports.size(), 4U);
  expectNothingLeft();
}

TEST_F(ArchiveWriterTest, ALinkInPlaceOfTheTemporaryFileIsNotFollowed) {
  writeFile(scratch_ / "precious", "kept");
  ASSERT_EQ(::symlink((scratch_ / "precious").c_str(), temporary().c_str()), 0);
  expectFailedSave();
  EXPECT_EQ(contentOf(scratch_ / "precious"), "kept");
  EXPECT_FALSE(existsAt(destination_));
}

TEST_F(ArchiveWriterTest, WhatFailsAfterTheRenameFailsNoSave) {
  bool thrown = false;
  before("flushToMedium", [&] {
    thrown = true;
    throw std::bad_alloc();
  });
  host_.jobs = {finishedJob("kept", "text")};
  expectFinishedSave();
  EXPECT_TRUE(thrown);
  EXPECT_THAT(memberNamesOf(destination_), ElementsAre("kept"));
}

TEST_F(ArchiveWriterTest, AFileThatCannotBeCutFailsTheSave) {
  platform_.outputFiles().fail("truncateAtPosition", EIO);
  expectFailedSave();
  EXPECT_THAT(log(), ElementsAre("Failed to truncate: " + temporary() + ". Input/output error"));
  expectNothingLeft();
}

class LostDataTest : public ArchiveWriterTest, public ::testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(Errors, LostDataTest, ::testing::Values(EIO, ENOSPC, EDQUOT));

TEST_P(LostDataTest, AFlushThatLosesDataFailsTheSave) {
  writeFile(destination_, "older");
  platform_.outputFiles().fail("flush", GetParam());
  expectFailedSave();
  EXPECT_THAT(log(), ElementsAre(StartsWith("Failed to flush: " + temporary() + ". ")));
  EXPECT_FALSE(existsAt(temporary()));
  EXPECT_EQ(contentOf(destination_), "older");
}

TEST_F(ArchiveWriterTest, FlushesThatFailAfterTheRenameAreLoggedInOrder) {
  platform_.outputFiles().fail("flush", EINVAL);
  platform_.outputFiles().fail("flushToMedium", EIO);
  platform_.outputFiles().fail("flushDirectoryOf", EACCES);
  expectFinishedSave();
  const int descriptor = descriptorOf("flush");
  const char* const path = destination_.c_str();
  EXPECT_THAT(log(),
              ElementsAre(formatted("Failed to invoke fsync(%d) on: %s", descriptor, path),
                          formatted("Failed to invoke F_FULLFSYNC(%d) on: %s", descriptor, path),
                          formatted("Failed to flush directory of: %s", path)));
  EXPECT_THAT(platform_.systemLog().lines(), Each(Field(&LogLine::priorityWord, 115)));
}

TEST_F(ArchiveWriterTest, AFailedRenameLeavesNoFileAtEitherPath) {
  platform_.outputFiles().fail("renameAt", EXDEV);
  expectFailedSave();
  EXPECT_THAT(platform_.systemLog().lines(),
              ElementsAre(LogLine{115, "Failed to renameat '" + temporary() + "' to '" +
                                           destination_ + "'. Invalid cross-device link"}));
  expectNothingLeft();
}

TEST_F(ArchiveWriterTest, ADirectoryAtTheDestinationStaysAndFailsTheSave) {
  std::filesystem::create_directory(destination_);
  expectFailedSave();
  EXPECT_THAT(log(), ElementsAre("Failed to renameat '" + temporary() + "' to '" + destination_ +
                                 "'. Is a directory"));
  EXPECT_TRUE(std::filesystem::is_directory(destination_));
  EXPECT_FALSE(existsAt(temporary()));
}

TEST_F(ArchiveWriterTest, ARelativeDestinationFailsAtTheRename) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(scratch_.path());
  destination_ = "out.tgz";
  expectFailedSave();
  EXPECT_THAT(log(), ElementsAre("Failed to renameat 'out.tgz.inprogress' to 'out.tgz'. Not a "
                                 "directory"));
  EXPECT_TRUE(std::filesystem::is_empty(scratch_.path()));
  std::filesystem::current_path(before);
}

TEST_F(ArchiveWriterTest, AFileThatTookThePlaceOfTheArchiveIsNotTakenForIt) {
  writeFile(destination_, "older");
  before("leadsToFile", [&] {
    writeFile(scratch_ / "other", "other");
    std::filesystem::rename(scratch_ / "other", temporary());
  });
  expectFailedSave();
  EXPECT_THAT(log(), ElementsAre("Failed to renameat '" + temporary() + "' to '" + destination_ +
                                 "'. Stale file handle"));
  EXPECT_EQ(contentOf(destination_), "older");
  EXPECT_EQ(contentOf(temporary()), "other");  // not ours to remove
}

TEST_F(ArchiveWriterTest, AnArchiveThatWasRemovedMeanwhileFailsTheSave) {
  host_.onReport = [&](const Report& report) {
    if (report.progress == 1.0) std::filesystem::remove(temporary());
  };
  expectFailedSave();
  EXPECT_THAT(log(), ElementsAre("Failed to renameat '" + temporary() + "' to '" + destination_ +
                                 "'. No such file or directory"));
  expectNothingLeft();
}

TEST_F(ArchiveWriterTest, RunningOutOfMemoryFailsTheSave) {
  host_.onCopyJobs = [] { throw std::bad_alloc(); };
  expectFailedSave();
  EXPECT_THAT(log(), ElementsAre(StartsWith("Failed to save archive: " + destination_)));
  expectNothingLeft();
}

TEST_F(ArchiveWriterTest, AnExceptionInTheMiddleFailsTheSave) {
  host_.jobs = {finishedJob("a", noise(1'000'000)), finishedJob("b", "text")};
  host_.onReport = [](const Report& report) {
    if (report.progress == 0.5) throw std::runtime_error("broken");
  };
  expectFailedSave();
  EXPECT_THAT(log(), ElementsAre("Failed to save archive: " + destination_ + ". broken"));
  expectNothingLeft();
}

TEST_F(ArchiveWriterTest, AnotherSaveSucceedsAfterOneThatFailed) {
  host_.jobs = {finishedJob("a", "text")};
  platform_.outputFiles().fail("renameAt", EIO);
  expectFailedSave();
  platform_.outputFiles().fail("renameAt", 0);
  expectFinishedSave();
  EXPECT_THAT(memberNamesOf(destination_), ElementsAre("a"));
}

}  // namespace
}  // namespace quillsift
