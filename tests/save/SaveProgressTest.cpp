#include <gtest/gtest.h>

#include <cstddef>

#include "save/SaveProgress.h"

namespace quillsift {
namespace {

TEST(SaveProgressTest, DividesInSinglePrecision) {
  EXPECT_EQ(archiveSaveProgress(1, 3), 0.3333333432674408);
  EXPECT_NE(archiveSaveProgress(1, 3), 1.0 / 3.0);
}

TEST(SaveProgressTest, RunsFromZeroToOneShortOfTheCount) {
  EXPECT_EQ(archiveSaveProgress(0, 4), 0.0);
  EXPECT_EQ(archiveSaveProgress(1, 4), 0.25);
  EXPECT_EQ(archiveSaveProgress(3, 4), 0.75);
  EXPECT_EQ(archiveSaveProgress(0, 1), 0.0);
}

TEST(SaveProgressTest, ReachesButNeverPassesOneWhereSinglePrecisionRoundsUp) {
  const std::size_t count = (std::size_t{1} << 24) + 1;
  EXPECT_EQ(archiveSaveProgress(count - 1, count), 1.0);
  EXPECT_EQ(directorySaveProgress(count - 1, count), 1.0);
}

TEST(SaveProgressTest, OffsetsDirectoriesByATwentiethInDoublePrecision) {
  for (std::size_t index = 0; index < 10; ++index) {
    const double fraction = static_cast<float>(index) / 10.0F;
    EXPECT_EQ(directorySaveProgress(index, 10), fraction + 0.05);
    EXPECT_NEAR(directorySaveProgress(index, 10), 0.05 + 0.1 * static_cast<double>(index), 1e-6);
  }
}

TEST(SaveProgressTest, CapsDirectoriesAtOne) {
  EXPECT_EQ(directorySaveProgress(99, 100), 1.0);
  EXPECT_LT(directorySaveProgress(94, 100), 1.0);
}

}  // namespace
}  // namespace quillsift
