#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "platform/linux/JournalReader.h"
#include "platform/linux/LostPages.h"
#include "tests/platform/linux/JournalMaker.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

class JournalReaderTest : public testing::Test {
 protected:
  std::vector<JournalFile> files() const {
    return openJournalFiles({scratch_.directory()}, nullptr);
  }

  const ScratchTree scratch_;
};

TEST_F(JournalReaderTest, GoesBackFromTheNewestEntry) {
  MadeEntry old = message("old", "kernel", 20, {{"PRIORITY", "6"}});
  MadeEntry young = message("young", "journal", 10);
  old.boot = std::string(31, '0') + "f";
  makeJournal(scratch_.at("x.journal"), {old, young});
  const auto opened = files();
  int code = -1;
  const auto journal = JournalReader::open(opened, 1000, &code);
  ASSERT_TRUE(journal) << code;
  EXPECT_EQ(code, 0);
  JournalEntry entry;
  ASSERT_EQ(journal->previous(), 1);
  ASSERT_TRUE(journal->read(&entry));
  EXPECT_EQ(entry.realTime, young.realTime);
  EXPECT_EQ(entry.sinceBoot, young.sinceBoot);
  EXPECT_EQ(entry.transport, "journal");
  EXPECT_EQ(entry.priority, std::nullopt);
  ASSERT_EQ(journal->previous(), 1);
  ASSERT_TRUE(journal->read(&entry));
  EXPECT_EQ(entry.realTime, old.realTime);
  EXPECT_EQ(entry.boot.back(), 15);
  EXPECT_EQ(entry.transport, "kernel");
  EXPECT_EQ(entry.priority, 6);
  EXPECT_EQ(journal->previous(), 0);
  EXPECT_EQ(journal->previous(), 0);
}

TEST_F(JournalReaderTest, SaysWhyAFileCannotBeRead) {
  makeJournal(scratch_.at("a.journal"), {message("text", "journal", 1)});
  scratch_.write("b.journal", std::string(10'000, 'x'));
  const auto opened = files();
  ASSERT_EQ(opened.size(), 2U);
  EXPECT_EQ(JournalReader::whyUnreadable(opened[0]), 0);
  EXPECT_EQ(JournalReader::whyUnreadable(opened[1]), EBADMSG);
  int code = 0;
  EXPECT_EQ(JournalReader::open(opened, 1000, &code), nullptr);
  EXPECT_EQ(code, EBADMSG);
}

// In a process of its own, since it takes the signal over.
TEST_F(JournalReaderTest, SurvivesAFileThatIsCutWhileItIsRead) {
  std::vector<MadeEntry> entries;
  for (int i = 0; i < 2000; ++i)
    entries.push_back(message(std::string(100, 'x') + std::to_string(i), "journal", 100));
  makeJournal(scratch_.at("x.journal"), entries);
  EXPECT_EXIT(
      {
        fillLostPagesWithZeros();
        const auto opened = files();
        int code = 0;
        const auto journal = JournalReader::open(opened, 1000, &code);
        JournalEntry entry;
        int count = 0;
        while (journal && count < 100'000 && journal->previous() > 0) {
          (void)journal->read(&entry);
          if (++count == 100) std::filesystem::resize_file(scratch_.at("x.journal"), 8192);
        }
        std::fprintf(stderr, "%d entries, lost: %d\n", count, pagesWereLost());
        std::_Exit(count >= 100 && count <= 2000 && pagesWereLost() ? 7 : 1);
      },
      testing::ExitedWithCode(7), "");
}

}  // namespace
}  // namespace quillsift
