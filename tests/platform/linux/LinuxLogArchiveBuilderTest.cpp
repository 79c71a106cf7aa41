#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "platform/linux/FileReading.h"
#include "platform/linux/LinuxLogArchiveBuilder.h"
#include "tests/platform/linux/JournalMaker.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

constexpr LogKindLimits kUsual{.size = 10485760, .age = 36000};
const std::map<std::string, LogKindLimits> kFourKinds = {
    {"persist", kUsual}, {"special", kUsual}, {"signpost", kUsual}, {"highvolume", kUsual}};

class LinuxLogArchiveBuilderTest : public testing::Test {
 protected:
  LinuxLogArchiveBuilderTest() {
    // No test may see the machine's own.
    for (const char* place : {"run/log/journal", "var/log/journal"})
      scratch_.link(place, "/dev/null");
  }
  ~LinuxLogArchiveBuilderTest() override {
    // Every child was reaped.
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
  }

  std::string directory(const std::string& place = "var/log/journal") const {
    std::filesystem::remove(scratch_.at(place));
    return scratch_.makeDirectory(place);
  }
  // A program in place of the one that reads the journal.
  std::string script(const std::string& commands) const {
    std::string path = scratch_.write("exporter", "#!/bin/sh\n" + commands);
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    return path;
  }
  int build(const std::string& program = QUILLSIFT_JOURNAL_EXPORT,
            LinuxLogArchiveBuilder::TimeLimits limits = {}) {
    LinuxLogArchiveBuilder builder(scratch_.tree(), program, limits);
    return builder.build(
        kFourKinds, [this](const char* text) { warnings_.emplace_back(text); },
        [this](int descriptor, const char* path) { return take(descriptor, path); });
  }
  int take(int descriptor, const char* path) {
    members_.emplace_back(path, readToEnd(descriptor)->text());
    EXPECT_EQ(::fstat(descriptor, &status_), 0);
    seals_ = ::fcntl(descriptor, F_GET_SEALS);
    return members_.size() >= refuseAfter_ ? ENOSPC : 0;
  }
  static std::size_t openDescriptors() {
    std::size_t count = 0;
    DIR* const directory = ::opendir("/proc/self/fd");
    while (directory != nullptr && ::readdir(directory) != nullptr)
      ++count;
    ::closedir(directory);
    return count;
  }

  const ScratchTree scratch_;
  std::vector<std::pair<std::string, std::string>> members_;
  std::vector<std::string> warnings_;
  std::size_t refuseAfter_ = 100;
  struct stat status_ {};
  int seals_ = 0;
};

TEST_F(LinuxLogArchiveBuilderTest, HandsOverAFileForEveryKind) {
  const std::string place = directory();
  makeJournal(place + "/system.journal", {message("a", "journal", 9, {{"PRIORITY", "3"}}),
                                          message("b", "audit", 8), message("c", "kernel", 7)});
  EXPECT_EQ(build(), 0);
  const std::string all = "-D " + place + " -o export ";
  EXPECT_THAT(members_,
              ElementsAre(Pair("persist.export", journalctl(all + "_TRANSPORT=journal")),
                          Pair("special.export", journalctl(all + "PRIORITY=3")),
                          Pair("signpost.export", journalctl(all + "_TRANSPORT=audit")),
                          Pair("highvolume.export", journalctl(all + "_TRANSPORT=kernel"))));
  EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(LinuxLogArchiveBuilderTest, HandsOverFilesThatNobodyCanChange) {
  makeJournal(directory() + "/system.journal", {message("a", "journal", 9)});
  EXPECT_EQ(build(), 0);
  ASSERT_THAT(members_, SizeIs(1));
  EXPECT_TRUE(S_ISREG(status_.st_mode));
  EXPECT_EQ(status_.st_mode & 07777, 0640U);
  EXPECT_EQ(status_.st_size, static_cast<off_t>(members_[0].second.size()));
  constexpr int kSeals = F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;
  EXPECT_EQ(seals_ & kSeals, kSeals);
}

TEST_F(LinuxLogArchiveBuilderTest, ReadsBothPlacesOfTheJournal) {
  makeJournal(directory("run/log/journal") + "/a.journal", {message("a", "journal", 9)});
  makeJournal(directory("var/log/journal") + "/b.journal", {message("b", "journal", 8)});
  EXPECT_EQ(build(), 0);
  ASSERT_THAT(members_, SizeIs(1));
  EXPECT_THAT(members_[0].second, HasSubstr("MESSAGE=a"));
  EXPECT_THAT(members_[0].second, HasSubstr("MESSAGE=b"));
}

TEST_F(LinuxLogArchiveBuilderTest, FailsWithoutAWordWhereThereIsNoJournal) {
  EXPECT_EQ(build(), ENOSYS);
  (void)directory();
  EXPECT_EQ(build(), ENOENT);
  EXPECT_THAT(members_, IsEmpty());
  EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(LinuxLogArchiveBuilderTest, HandsOverNothingOfAJournalThatHasNothingToSay) {
  makeJournal(directory() + "/system.journal", {message("old", "journal", 100'000)});
  EXPECT_EQ(build(), 0);
  EXPECT_THAT(members_, IsEmpty());
}

TEST_F(LinuxLogArchiveBuilderTest, PassesWarningsOn) {
  const std::string place = directory();
  makeJournal(place + "/good.journal", {message("kept", "journal", 9)});
  scratch_.write("var/log/journal/bad.journal", "bad");
  EXPECT_EQ(build(), 0);
  EXPECT_THAT(members_, SizeIs(1));
  ASSERT_THAT(warnings_, SizeIs(1));
  EXPECT_THAT(warnings_[0], HasSubstr("bad.journal cannot be read as a journal"));
}

TEST_F(LinuxLogArchiveBuilderTest, PassesNoMoreWarningsOnThanAnybodyReads) {
  (void)directory();
  for (int i = 0; i < 200; ++i)
    scratch_.write("var/log/journal/" + std::to_string(i) + ".journal", "bad");
  EXPECT_NE(build(), 0);
  EXPECT_THAT(warnings_, SizeIs(50));
  EXPECT_EQ(warnings_.back(), "More warnings left out");
}

TEST_F(LinuxLogArchiveBuilderTest, EndsWithTheFirstMemberThatIsRefused) {
  makeJournal(directory() + "/system.journal",
              {message("a", "journal", 9, {{"PRIORITY", "3"}}), message("c", "kernel", 7)});
  refuseAfter_ = 2;
  EXPECT_EQ(build(), ENOSPC);
  EXPECT_THAT(members_, SizeIs(2));
}

TEST_F(LinuxLogArchiveBuilderTest, LeavesNoDescriptorBehind) {
  makeJournal(directory() + "/system.journal", {message("a", "journal", 9)});
  const std::size_t before = openDescriptors();
  EXPECT_EQ(build(), 0);
  EXPECT_EQ(build(script("exit 1")), EIO);
  EXPECT_EQ(openDescriptors(), before);
}

// --- Time ---

TEST_F(LinuxLogArchiveBuilderTest, SaysWhenThereWasNoTimeToReadTheWholeJournal) {
  makeJournal(directory() + "/system.journal", {message("a", "journal", 9)});
  EXPECT_EQ(build(QUILLSIFT_JOURNAL_EXPORT, {.reading = std::chrono::seconds(0)}), 0);
  EXPECT_THAT(warnings_,
              ElementsAre("Reading the journal took too long; older entries are missing"));
}

TEST_F(LinuxLogArchiveBuilderTest, EndsAChildThatDoesNotComeToAnEnd) {
  (void)directory();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(build(script("exec sleep 600"), {.whole = std::chrono::seconds(0)}), ETIMEDOUT);
  EXPECT_THAT(warnings_, ElementsAre("The journal is not readable in the time given"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
}

TEST_F(LinuxLogArchiveBuilderTest, EndsAChildThatKeepsTalking) {
  (void)directory();
  const std::string talking = script("echo on; exec sleep 600");
  // More time for a child that a busy machine has not let say anything: that would be another test.
  for (auto whole = std::chrono::seconds(1); whole < std::chrono::minutes(2); whole *= 2) {
    warnings_.clear();
    ASSERT_EQ(build(talking, {.whole = whole}), ETIMEDOUT);
    if (warnings_.size() > 1) break;
  }
  EXPECT_THAT(warnings_, ElementsAre("on", "The journal is not readable in the time given"));
}

// --- Children that go wrong ---

TEST_F(LinuxLogArchiveBuilderTest, SaysThatItsProgramIsMissing) {
  (void)directory();
  EXPECT_EQ(build(scratch_.at("nothing")), ENOENT);
  EXPECT_THAT(warnings_, ElementsAre("Cannot start " + scratch_.at("nothing") +
                                     ": No such file or directory"));
}

TEST_F(LinuxLogArchiveBuilderTest, FailsWhenTheChildCrashes) {
  (void)directory();
  EXPECT_EQ(build(script("echo 'Assertion failed'; kill -SEGV $$")), EIO);
  EXPECT_THAT(warnings_,
              ElementsAre("Assertion failed", "Reading the journal failed: Input/output error"));
}

TEST_F(LinuxLogArchiveBuilderTest, FailsWhenTheChildSaysNothing) {
  (void)directory();
  EXPECT_EQ(build("/bin/true"), EIO);
  EXPECT_THAT(warnings_, SizeIs(1));
}

TEST_F(LinuxLogArchiveBuilderTest, PassesOnWhatTheChildsErrorStreamSays) {
  (void)directory();
  EXPECT_EQ(build(script("echo 'library: trouble' >&2")), EIO);
  EXPECT_EQ(warnings_.at(0), "library: trouble");
}

TEST_F(LinuxLogArchiveBuilderTest, TellsTheChildLimitsAndPlaces) {
  const std::string place = directory();
  EXPECT_EQ(build(script("echo \"$@\""),
                  {.reading = std::chrono::seconds(7), .whole = std::chrono::seconds(60)}),
            EIO);
  EXPECT_EQ(warnings_.at(0),
            "7 highvolume:10485760:36000 persist:10485760:36000 signpost:10485760:36000 "
            "special:10485760:36000 -- " +
                place);
}

TEST_F(LinuxLogArchiveBuilderTest, LooksForItsProgramBesideTheExecutable) {
  const std::filesystem::path own = std::filesystem::read_symlink("/proc/self/exe");
  EXPECT_EQ(LinuxLogArchiveBuilder::programBesideExecutable(),
            own.parent_path() / "quillsift/quillsift-journal-export");
}

}  // namespace
}  // namespace quillsift
