#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "platform/linux/NewestEntries.h"

namespace quillsift {
namespace {

TEST(NewestEntriesTest, GivesTheOldestFirst) {
  NewestEntries entries(100);
  EXPECT_EQ(entries.text(), "");
  entries.add("newest;");
  entries.add("middle;");
  entries.add("oldest;");
  EXPECT_EQ(entries.text(), "oldest;middle;newest;");
  EXPECT_TRUE(entries.isOpen());
}

TEST(NewestEntriesTest, EndsWithTheFirstThatDoesNotFit) {
  NewestEntries entries(10);
  entries.add("12345");
  entries.add("6789");
  EXPECT_TRUE(entries.isOpen());
  entries.add("ab");
  EXPECT_FALSE(entries.isOpen());
  entries.add("c");  // would fit, but is older than one that is missing
  EXPECT_EQ(entries.text(), "678912345");
  EXPECT_EQ(entries.tooLong(), 0U);
}

TEST(NewestEntriesTest, TakesExactlyItsLimit) {
  NewestEntries entries(10);
  entries.add("12345");
  entries.add("67890");
  EXPECT_EQ(entries.text(), "6789012345");
  EXPECT_TRUE(entries.isOpen());
}

TEST(NewestEntriesTest, PassesOverWhatCouldNeverFit) {
  NewestEntries entries(10);
  entries.add("12345678901");
  entries.add("12345");
  entries.add("12345678901");
  entries.add("67890");
  EXPECT_EQ(entries.text(), "6789012345");
  EXPECT_EQ(entries.tooLong(), 2U);
}

TEST(NewestEntriesTest, TakesNothingOnceClosed) {
  NewestEntries entries(10);
  entries.add("1");
  entries.close();
  entries.add("2");
  EXPECT_FALSE(entries.isOpen());
  EXPECT_EQ(entries.text(), "1");
}

TEST(NewestEntriesTest, TakesNothingWithoutRoom) {
  for (const std::int64_t limit :
       {std::int64_t{0}, std::int64_t{-1}, std::numeric_limits<std::int64_t>::min()}) {
    NewestEntries entries(limit);
    EXPECT_FALSE(entries.isOpen());
    entries.add("1");
    EXPECT_EQ(entries.text(), "");
  }
}

TEST(NewestEntriesTest, StandsAnyLimit) {
  NewestEntries entries(std::numeric_limits<std::int64_t>::max());
  entries.add(std::string(100'000, 'x'));
  EXPECT_EQ(entries.text().size(), 100'000U);
}

}  // namespace
}  // namespace quillsift
