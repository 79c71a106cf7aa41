#include <gtest/gtest.h>

#include "platform/linux/FileReading.h"
#include "platform/linux/JournalFileCheck.h"
#include "tests/platform/linux/JournalMaker.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

std::string littleEndian(std::uint64_t number) {
  std::string bytes;
  for (int shift = 0; shift < 64; shift += 8)
    bytes += static_cast<char>(number >> shift);
  return bytes;
}

// An object of a journal file, padded as they are.
std::string object(char type, std::size_t payload) {
  std::string bytes = std::string(1, type) + std::string(7, '\0') + littleEndian(16 + payload);
  bytes += std::string(payload, 'p');
  return bytes + std::string((8 - payload % 8) % 8, '\0');
}

class JournalFileCheckTest : public testing::Test {
 protected:
  // A file of a header and these objects, the last of which begins at `tail`.
  void make(const std::string& objects, std::uint64_t tail) {
    std::string header(kHeader, '\0');
    header.replace(0, 8, "LPKSHHRH");
    header.replace(88, 8, littleEndian(kHeader));
    header.replace(96, 8, littleEndian(objects.size()));
    header.replace(136, 8, littleEndian(tail));
    header.replace(152, 8, littleEndian(4711));
    content_ = header + objects;
  }
  void put(std::size_t offset, const std::string& bytes) {
    content_.replace(offset, bytes.size(), bytes);
  }
  JournalFileFacts inspect(bool wholeFile = true) const {
    const FileDescriptor file = openForReading(scratch_.write("x.journal", content_));
    return inspectJournalFile(file.get(), wholeFile);
  }

  static constexpr std::uint64_t kHeader = 256;
  const ScratchTree scratch_;
  std::string content_;
};

TEST_F(JournalFileCheckTest, FindsNothingInASoundFile) {
  make(object(1, 5) + object(2, 16) + object(7, 0), kHeader + 24 + 32);
  EXPECT_EQ(inspect().firstDamage, std::nullopt);
  EXPECT_EQ(inspect().entries, 4711U);
}

TEST_F(JournalFileCheckTest, FindsNothingInAnEmptyJournal) {
  make("", 0);
  EXPECT_EQ(inspect().firstDamage, std::nullopt);
}

TEST_F(JournalFileCheckTest, FindsWhereAnObjectIsNone) {
  const std::string objects = object(1, 5) + object(2, 16) + object(3, 0);
  constexpr std::uint64_t kSecond = kHeader + 24, kTail = kSecond + 32;
  for (const std::string& damage :
       {std::string(1, '\0'), std::string("\x08"), std::string("\xFF"),  // types
        "\x02" + std::string(7, '\0') + littleEndian(15),                // less than its header
        "\x02" + std::string(7, '\0') + littleEndian(0),
        "\x02" + std::string(7, '\0') + littleEndian(objects.size()),  // past the end
        "\x02" + std::string(7, '\0') + littleEndian(~std::uint64_t{0})}) {
    make(objects, kTail);
    put(kSecond, damage);
    EXPECT_EQ(inspect().firstDamage, kSecond) << damage;
    EXPECT_EQ(inspect(false).firstDamage, std::nullopt) << "looked at without being asked";
    EXPECT_EQ(inspect(false).entries, 4711U);
  }
}

TEST_F(JournalFileCheckTest, FindsAChainThatMissesItsEnd) {
  make(object(1, 40) + object(3, 0), kHeader + 48);
  EXPECT_EQ(inspect().firstDamage, kHeader + 48);
}

TEST_F(JournalFileCheckTest, FindsAFileThatEndsEarly) {
  make(object(1, 5) + object(2, 16) + object(3, 0), kHeader + 24 + 32);
  content_.resize(kHeader + 24 + 8);
  EXPECT_EQ(inspect().firstDamage, kHeader + 24);
}

TEST_F(JournalFileCheckTest, SaysNothingOfWhatIsNoJournal) {
  for (const std::string& content : {std::string(), std::string("LPKSHHRH"),
                                     std::string(10000, 'x'), std::string(10000, '\0')}) {
    content_ = content;
    EXPECT_EQ(inspect().firstDamage, std::nullopt);
    EXPECT_EQ(inspect().entries, 0U);
  }
}

TEST_F(JournalFileCheckTest, StandsAnyNumberInTheHeader) {
  for (const std::uint64_t number :
       {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{207}, std::uint64_t{1} << 32,
        ~std::uint64_t{7}, ~std::uint64_t{0}}) {
    for (const std::size_t offset : {88U, 96U, 136U}) {
      make(object(1, 5) + object(3, 0), kHeader + 24);
      put(offset, littleEndian(number));
      (void)inspect();
    }
  }
}

TEST_F(JournalFileCheckTest, FollowsALongChain) {
  std::string objects;
  for (int i = 0; i < 30'000; ++i)
    objects += object(static_cast<char>(1 + i % 7), static_cast<std::size_t>(i % 100));
  const std::uint64_t tail = kHeader + objects.size();
  make(objects + object(3, 0), tail);
  ASSERT_GT(content_.size(), 1'000'000U);
  EXPECT_EQ(inspect().firstDamage, std::nullopt);
  put(tail, std::string(16, '\0'));  // the last one itself is not looked at
  EXPECT_EQ(inspect().firstDamage, std::nullopt);
  put(kHeader + 600'000, std::string(4096, '\0'));
  const auto damage = inspect().firstDamage;
  ASSERT_TRUE(damage.has_value());
  EXPECT_NEAR(static_cast<double>(*damage), static_cast<double>(kHeader + 600'000), 200);
}

TEST_F(JournalFileCheckTest, KnowsTheFilesOfThisSystem) {
  std::vector<MadeEntry> entries;
  for (int i = 0; i < 2000; ++i)
    entries.push_back(message("entry " + std::to_string(i), "journal", 0));
  const std::string path = scratch_.at("real.journal");
  makeJournal(path, entries);
  const FileDescriptor file = openForReading(path);
  EXPECT_EQ(inspectJournalFile(file.get(), true).firstDamage, std::nullopt);
  EXPECT_EQ(inspectJournalFile(file.get(), true).entries, 2000U);
  const std::uint64_t middle = numberIn(path, 136) / 4096 * 4096 - 20 * 4096;
  overwrite(path, middle, std::string(4096, '\0'));
  const auto damage = inspectJournalFile(file.get(), true).firstDamage;
  ASSERT_TRUE(damage.has_value());
  EXPECT_GE(*damage + 16, middle);  // its header may begin before the page
  EXPECT_LT(*damage, middle + 4096);
}

}  // namespace
}  // namespace quillsift
