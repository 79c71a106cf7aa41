#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/linux/JournalFiles.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class JournalFilesTest : public testing::Test {
 protected:
  std::vector<std::string> open(const std::vector<std::string>& directories) {
    failures_.clear();
    std::vector<std::string> paths;
    for (const JournalFile& file : openJournalFiles(
             directories,
             [this](const std::string&path, int code) { failures_.emplace_back(path, code); })) {
      EXPECT_TRUE(file.descriptor.valid());
      paths.push_back(file.path);
    }
    return paths;
  }

  const ScratchTree scratch_;
  std::vector<std::pair<std::string, int>> failures_;
};

TEST_F(JournalFilesTest, AreThoseOfTheDirectoryAndOfTheDirectoriesInIt) {
  const std::string archived = scratch_.write("log/aa/system@1.journal", "");
  const std::string current = scratch_.write("log/aa/system.journal", "");
  const std::string other = scratch_.write("log/bb/user-1.journal", "");
  const std::string setAside = scratch_.write("log/x.journal~", "");
  scratch_.write("log/aa/deeper/x.journal", "");
  scratch_.write("log/aa/system.journal.txt", "");
  scratch_.write("log/journal", "");
  const std::string elsewhere = scratch_.write("more/y.journal", "");
  EXPECT_THAT(open({scratch_.at("log"), scratch_.at("more")}),
              ElementsAre(current, archived, other, setAside, elsewhere));
  EXPECT_THAT(failures_, IsEmpty());
}

TEST_F(JournalFilesTest, AreNoneOfADirectoryThatDoesNotExist) {
  EXPECT_THAT(open({scratch_.at("log")}), IsEmpty());
  EXPECT_THAT(failures_, IsEmpty());
}

TEST_F(JournalFilesTest, AreFollowedThroughLinks) {
  scratch_.write("real/aa/system.journal", "");
  scratch_.link("log", scratch_.at("real"));
  EXPECT_THAT(open({scratch_.at("log")}), ElementsAre(scratch_.at("log/aa/system.journal")));
}

TEST_F(JournalFilesTest, AreRegularFiles) {
  scratch_.makeDirectory("log");
  ASSERT_EQ(::mkfifo(scratch_.at("log/pipe.journal").c_str(), 0600), 0);
  scratch_.makeDirectory("log/directory.journal");
  scratch_.link("log/gone.journal", "nowhere");
  EXPECT_THAT(open({scratch_.at("log")}), IsEmpty());
  EXPECT_THAT(failures_, ElementsAre(Pair(scratch_.at("log/gone.journal"), ENOENT),
                                     Pair(scratch_.at("log/pipe.journal"), EINVAL)));
}

TEST_F(JournalFilesTest, SayWhatCannotBeListed) {
  EXPECT_THAT(open({scratch_.write("log", "a file")}), IsEmpty());
  EXPECT_THAT(failures_, ElementsAre(Pair(scratch_.at("log"), ENOTDIR)));
}

TEST_F(JournalFilesTest, StayOpenWhenTheyAreRenamed) {
  const std::string path = scratch_.write("log/system.journal", "content");
  const auto files = openJournalFiles({scratch_.at("log")}, nullptr);
  ASSERT_EQ(::rename(path.c_str(), scratch_.at("log/system@1.journal").c_str()), 0);
  ASSERT_EQ(files.size(), 1U);
  char text[8] = {};
  EXPECT_EQ(::read(files[0].descriptor.get(), text, sizeof text), 7);
}

}  // namespace
}  // namespace quillsift
