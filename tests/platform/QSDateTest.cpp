#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "platform/QSDate.h"

namespace quillsift {
namespace {

TEST(QSDateTest, DescribesAnInstantInUniversalTime) {
  const struct {
    double seconds;
    const char* text;
  } cases[] = {
      {0, "1970-01-01 00:00:00 +0000"},
      {1700000000.999, "2023-11-14 22:13:20 +0000"},
      {-0.5, "1969-12-31 23:59:59 +0000"},
      {951782400, "2000-02-29 00:00:00 +0000"},
      {-62135596800.0, "0001-01-01 00:00:00 +0000"},
      {253402300799.0, "9999-12-31 23:59:59 +0000"},
  };
  for (const auto& each : cases)
    EXPECT_EQ(QSDate{each.seconds}.description(), each.text);
}

TEST(QSDateTest, DescribesWhatNoCalendarHolds) {
  EXPECT_EQ(QSDate{253402300800.0}.description(), "253402300800 seconds since 1970");
  EXPECT_EQ(QSDate{-62135596801.0}.description(), "-62135596801 seconds since 1970");
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(QSDate{kInfinity}.description(), "inf seconds since 1970");
  EXPECT_EQ(QSDate{-kInfinity}.description(), "-inf seconds since 1970");
  const double notANumber = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(QSDate{notANumber}.description(), "nan seconds since 1970");
}

TEST(QSDateTest, DescribesTheLargestNumbersWhole) {
  const std::string huge = QSDate{1e300}.description();
  EXPECT_EQ(huge.find(" seconds since 1970"), 301U) << huge;
}

TEST(QSDateTest, AFractionOfTheLastSecondIsStillInTheCalendar) {
  EXPECT_EQ(QSDate{253402300799.5}.description(), "9999-12-31 23:59:59 +0000");
}

TEST(QSDateTest, DatesAreEqualWhenTheirSecondsAre) {
  EXPECT_EQ(QSDate{1.5}, QSDate{1.5});
  EXPECT_NE(QSDate{1.5}, QSDate{1.25});
}

}  // namespace
}  // namespace quillsift
