#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <clocale>
#include <cmath>
#include <limits>

#include "platform/FileDescriptor.h"
#include "save/PaxArchive.h"
#include "tests/save/ArchiveReaders.h"
#include "tests/save/SavedJobs.h"
#include "tests/save/ScratchDirectory.h"

namespace quillsift {
namespace {

class PaxArchiveTest : public ::testing::Test {
 protected:
  PaxArchiveTest() {
    std::setlocale(LC_CTYPE, "C.UTF-8");
    file_ = FileDescriptor(::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  }
  ~PaxArchiveTest() override { std::setlocale(LC_CTYPE, "C"); }

  // The line of the only member after it was written.
  std::string lineOf(const std::string& path, const QSJobEntry& entry,
                     const std::optional<QSDate>& dateFinished) {
    PaxArchive archive;
    EXPECT_TRUE(archive.openOnDescriptor(file_.get()));
    EXPECT_TRUE(archive.addMember(path, entry, dateFinished)) << archive.errorText();
    EXPECT_TRUE(archive.close());
    const std::vector<ListedMember> members = membersOf(path_);
    EXPECT_EQ(members.size(), 1U);
    return members.empty() ? "" : members.front().line;
  }

  std::string timesOf(const std::optional<QSDate>& dateFinished) {
    const std::string prefix = "a|0|4|644|0|0|||";
    const std::string line = lineOf("a", *entryFrom({}, "text"), dateFinished);
    EXPECT_TRUE(line.starts_with(prefix)) << line;
    return line.substr(prefix.size());
  }

  ScratchDirectory scratch_;
  const std::string path_ = scratch_ / "out.tgz";
  FileDescriptor file_;
};

TEST_F(PaxArchiveTest, SetsTheBirthTimeToTheDateAndTheModificationTimeOneSecondLater) {
  EXPECT_EQ(timesOf(QSDate{1'700'000'000.25}), "1700000001250000000|1700000000250000000|-|-");
}

TEST_F(PaxArchiveTest, SetsTimesFromTheFirstInstantOn) {
  EXPECT_EQ(timesOf(QSDate{0.5}), "1500000000|500000000|-|-");
}

TEST_F(PaxArchiveTest, SetsNoTimesForAJobWithoutADate) {
  EXPECT_EQ(timesOf(std::nullopt), "0|-|-|-");
}

TEST_F(PaxArchiveTest, SetsNoTimesForADateBefore1970) {
  EXPECT_EQ(timesOf(QSDate{-0.25}), "0|-|-|-");
}

TEST_F(PaxArchiveTest, SetsNoTimesForADateThatIsNoNumber) {
  EXPECT_EQ(timesOf(QSDate{std::nan("")}), "0|-|-|-");
}

TEST_F(PaxArchiveTest, DoesNotOverflowAtTheEndOfTime) {
  const std::string times = timesOf(QSDate{1e300});
  EXPECT_TRUE(times.starts_with("9223372036854775807")) << times;
}

TEST_F(PaxArchiveTest, KeepsModeOwnersAndExtendedAttributes) {
  const auto entry = entryFrom({.accessMask = 0104755,
                                .ownerID = 1000,
                                .groupID = 4'000'000'001,
                                .extendedAttributes = {{"user.note", "kept"},
                                                       {"user.empty", ""},
                                                       {"user.binary", {"\0\xff=\n", 4}}}},
                               "text");
  EXPECT_EQ(lineOf("a", *entry, std::nullopt),
            "a|0|4|4755|1000|4000000001|||0|-|-|-|user.binary=00ff3d0a|user.empty=|"
            "user.note=6b657074");
}

TEST_F(PaxArchiveTest, WritesARegularFileWhateverTheSourceWas) {
  const auto entry = entryFrom({.accessMask = 0120777}, "target");
  EXPECT_EQ(lineOf("link", *entry, std::nullopt), "link|0|6|777|0|0|||0|-|-|-");
}

TEST_F(PaxArchiveTest, KeepsNamesOfEveryKind) {
  const std::vector<std::string> names = {
      "Logs/install.log",
      "/drreg/DrService.txt",
      "Gr\u00f6\u00dfe/\u65e5\u672c\u8a9e/e\u0301 \U0001F600.txt",
      "\uFFFD\U0010FFFF\uE000",
      std::string(101, 'x'),
      "d/" + std::string(255, 'y'),
      std::string(300, 'z'),
      std::string(2000, 'w') + "/\u00fc",
      " odd 'name' \"x\" \\ ",
      "Logs/install.log"};
  PaxArchive archive;
  ASSERT_TRUE(archive.openOnDescriptor(file_.get()));
  for (const std::string& name : names)
    EXPECT_TRUE(archive.addMember(name, *entryFrom({}, "text"), std::nullopt))
        << name << ": " << archive.errorText();
  ASSERT_TRUE(archive.close());
  EXPECT_EQ(memberNamesOf(path_), names);
}

TEST_F(PaxArchiveTest, ReplacesBytesOfANameThatAreNotUTF8) {
  EXPECT_EQ(lineOf("a\xff\xc3.txt", *entryFrom({}, "text"), std::nullopt),
            "a\uFFFD\uFFFD.txt|0|4|644|0|0|||0|-|-|-");
}

TEST_F(PaxArchiveTest, RefusesANonASCIINameOutsideAUTF8Locale) {
  std::setlocale(LC_CTYPE, "C");
  PaxArchive archive;
  ASSERT_TRUE(archive.openOnDescriptor(file_.get()));
  EXPECT_FALSE(archive.addMember("Gr\u00f6\u00dfe", *entryFrom({}, "text"), std::nullopt));
  EXPECT_FALSE(archive.errorText().empty());
  EXPECT_TRUE(archive.addMember("plain", *entryFrom({}, "text"), std::nullopt));
}

TEST_F(PaxArchiveTest, AnArchiveWithoutMembersIsOne) {
  PaxArchive archive;
  ASSERT_TRUE(archive.openOnDescriptor(file_.get()));
  ASSERT_TRUE(archive.close());
  EXPECT_TRUE(membersOf(path_).empty());
  EXPECT_EQ(runCommand("zcat " + path_ + " | wc -c").output, "1024\n");
}

TEST_F(PaxArchiveTest, LeavesTheDescriptorOpenAtTheEndOfTheArchive) {
  PaxArchive archive;
  ASSERT_TRUE(archive.openOnDescriptor(file_.get()));
  ASSERT_TRUE(archive.close());
  EXPECT_EQ(static_cast<std::size_t>(::lseek(file_.get(), 0, SEEK_CUR)), contentOf(path_).size());
}

TEST_F(PaxArchiveTest, CompressesAtTheHighestLevel) {
  lineOf("a", *entryFrom({}, "text"), std::nullopt);
  EXPECT_EQ(contentOf(path_).at(8), '\2');  // the gzip header's mark of the slowest method
}

TEST_F(PaxArchiveTest, CannotBeOpenedOnADescriptorThatIsNone) {
  PaxArchive archive;
  EXPECT_FALSE(archive.openOnDescriptor(-1));
  EXPECT_FALSE(archive.errorText().empty());
}

TEST_F(PaxArchiveTest, NoticesAtTheCloseThatNothingWasWritten) {
  const FileDescriptor full(::open("/dev/full", O_RDWR | O_CLOEXEC));
  PaxArchive archive;
  ASSERT_TRUE(archive.openOnDescriptor(full.get()));
  EXPECT_TRUE(archive.addMember("small", *entryFrom({}, "text"), std::nullopt));
  EXPECT_FALSE(archive.close());
  EXPECT_NE(archive.errorText().find("No space left"), std::string::npos) << archive.errorText();
}

TEST_F(PaxArchiveTest, NoticesThatAMembersDataIsNotWritten) {
  const FileDescriptor full(::open("/dev/full", O_RDWR | O_CLOEXEC));
  PaxArchive archive;
  ASSERT_TRUE(archive.openOnDescriptor(full.get()));
  EXPECT_FALSE(archive.addMember("large", *entryFrom({}, noise(2'000'000)), std::nullopt));
}

// The bytes of a mapped log file may change under the writer. The archive stays sound.
TEST_F(PaxArchiveTest, DataThatChangesMeanwhileDoesNotBreakTheCheckSum) {
  constexpr std::size_t kLength = 16U << 20;
  void* const shared =
      ::mmap(nullptr, kLength, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  const pid_t scribbler = ::fork();
  ASSERT_GE(scribbler, 0);
  if (scribbler == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // whatever becomes of the test
    for (auto* const words = static_cast<volatile unsigned*>(shared);;) {
      for (std::size_t i = 0; i < kLength / sizeof(unsigned); i += 512)
        words[i] = words[i] + 1;
    }
  }

  const std::shared_ptr<const void> storage(shared, [](const void*) {});
  const QSJobEntry entry(QSData(storage, {static_cast<const std::byte*>(shared), kLength}));
  PaxArchive archive;
  EXPECT_TRUE(archive.openOnDescriptor(file_.get()));
  EXPECT_TRUE(archive.addMember("scribbled", entry, std::nullopt));
  EXPECT_TRUE(archive.close());
  ::kill(scribbler, SIGKILL);
  EXPECT_EQ(::waitpid(scribbler, nullptr, 0), scribbler);
  ::munmap(shared, kLength);

  const CommandResult tested = runCommand("gzip -t " + path_);
  EXPECT_EQ(tested.status, 0) << tested.output;
}

}  // namespace
}  // namespace quillsift
