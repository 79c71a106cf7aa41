// What other programs make of a saved archive.

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "jobs/QSTime.h"
#include "tests/save/SaveFixture.h"

namespace quillsift {
namespace {

struct Saved {
  std::string path;
  std::string text;
  SourceFile source;
};

std::vector<Saved> everyKindOfResult() {
  return {
      {"README.txt", "Read me.\n", {}},
      {"Logs/install.log", noise(300'000), {.accessMask = 0100640, .ownerID = 0, .groupID = 4}},
      {"/drreg/DrService.txt", "registry", {.accessMask = 0100600}},
      {"Gr\u00f6\u00dfe/\u65e5\u672c\u8a9e \U0001F600.txt", "name", {}},
      {"long/" + std::string(120, 'x') + "/" + std::string(120, 'y') + "/" + std::string(120, 'z'),
       "long name",
       {}},
      {"odd/it's \"quoted\" \\ here", "odd name", {}},
      {"bin/tool", "setuid", {.accessMask = 0104755, .ownerID = 1000, .groupID = 1001}},
      {"bin/sticky",
       "all bits",
       {.accessMask = 0107777, .ownerID = 3'000'000, .groupID = 3'000'001}},
      {"attributes",
       "named values",
       {.extendedAttributes = {{"user.note", "a note"},
                               {"user.binary", std::string("\0\xff\x80 =\n", 6)},
                               {"user.large", noise(2000)}}}},
  };
}

class ArchiveReadBackTest : public SaveFixture {
 protected:
  void SetUp() override {
    useTheRealFiles();
    if (!commandsAreThere({"tar", "bsdtar", "python3", "gzip"}))
      GTEST_SKIP() << "needs tar, bsdtar, python3 and gzip";
    timespec now{1'700'000'000, 0};
    for (const Saved& saved : saved_) {
      platform_.hostInformation().setRealTime(now);
      host_.jobs.push_back(finishedJob(saved.path, entryFrom(saved.source, saved.text)));
      now.tv_sec += 86'400;
      now.tv_nsec += 101'234'567;
    }
    expectFinishedSave();
    std::filesystem::create_directory(extracted_);
  }

  // Modification time of the member, one second after the job's end.
  timespec modificationTime(std::size_t index) const {
    timespec time = QSTime(*host_.jobs[index]->dateFinished()).timeSpec();
    ++time.tv_sec;
    return time;
  }

  void expectExtracted(std::size_t index) {
    const Saved& saved = saved_[index];
    SCOPED_TRACE(saved.path);
    const std::string path = extracted_ + "/" + saved.path;
    struct stat status;
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_TRUE(contentOf(path) == saved.text);
    // Set-id bits and owners are for root to restore.
    const mode_t restorable = ::geteuid() == 0 ? 07777 : 0777;
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(status.st_mode & restorable, saved.source.accessMask & restorable);
    EXPECT_EQ(status.st_mtim.tv_sec, modificationTime(index).tv_sec);
    EXPECT_EQ(status.st_mtim.tv_nsec, modificationTime(index).tv_nsec);
    if (::geteuid() == 0) {
      EXPECT_EQ(status.st_uid, saved.source.ownerID);
      EXPECT_EQ(status.st_gid, saved.source.groupID);
    }
    for (const auto& [name, value] : saved.source.extendedAttributes) {
      std::string found(value.size() + 1, '\0');
      const ssize_t length = ::getxattr(path.c_str(), name.c_str(), found.data(), found.size());
      ASSERT_GE(length, 0) << name;
      found.resize(static_cast<std::size_t>(length));
      EXPECT_TRUE(found == value) << name;
    }
  }

  void expectExtractedBy(const std::string& command) {
    const CommandResult result =
        runCommand(command + " -C " + shellWord(extracted_) + " -xf " + shellWord(destination_));
    EXPECT_EQ(result.status, 0) << result.output;
    for (std::size_t index = 0; index < saved_.size(); ++index)
      expectExtracted(index);
  }

  std::string namesOneALine() const {
    std::string names;
    for (const Saved& saved : saved_)
      names += saved.path + "\n";
    return names;
  }

  const std::vector<Saved> saved_ = everyKindOfResult();
  const std::string extracted_ = scratch_ / "extracted";
};

TEST_F(ArchiveReadBackTest, GNUTarExtractsEverything) {
  expectExtractedBy("tar --numeric-owner -p --xattrs --xattrs-include='*'");
}

TEST_F(ArchiveReadBackTest, BsdtarExtractsEverything) {
  expectExtractedBy("bsdtar --numeric-owner -p");
}

TEST_F(ArchiveReadBackTest, GNUTarListsTheNames) {
  const CommandResult listed = runCommand(
      "tar -P --quoting-style=literal --warning=no-unknown-keyword -tf " + shellWord(destination_));
  EXPECT_EQ(listed.status, 0);
  EXPECT_EQ(listed.output, namesOneALine());
}

TEST_F(ArchiveReadBackTest, PythonSeesEveryFieldAsItWasSaved) {
  const std::vector<ListedMember> members = membersOf(destination_);
  ASSERT_EQ(members.size(), saved_.size());
  for (std::size_t index = 0; index < saved_.size(); ++index) {
    const Saved& saved = saved_[index];
    SCOPED_TRACE(saved.path);
    const timespec modified = modificationTime(index);
    const auto nanoseconds = [&](time_t seconds) {
      return std::to_string(seconds * 1'000'000'000 + modified.tv_nsec);
    };
    char head[64];
    std::snprintf(head, sizeof head, "|0|%zu|%o|%u|%u|||", saved.text.size(),
                  saved.source.accessMask & 07777, saved.source.ownerID, saved.source.groupID);
    std::string expected = saved.path + head + nanoseconds(modified.tv_sec) + "|" +
                           nanoseconds(modified.tv_sec - 1) + "|-|-";
    for (const auto& [name, value] : saved.source.extendedAttributes) {
      expected += "|" + name + "=";
      for (const char byte : value) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(byte));
        expected += digits;
      }
    }
    EXPECT_EQ(members[index].line, expected);
    EXPECT_TRUE(members[index].data == saved.text);
  }
}

TEST_F(ArchiveReadBackTest, GzipFindsNothingWrong) {
  const CommandResult tested = runCommand("gzip -tv " + shellWord(destination_));
  EXPECT_EQ(tested.status, 0);
  EXPECT_EQ(tested.output.find("trailing garbage"), std::string::npos) << tested.output;
}

}  // namespace
}  // namespace quillsift
