#include <gtest/gtest.h>

#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "jobs/QSTime.h"
#include "tests/doubles/TestPlatform.h"

namespace quillsift {
namespace {

constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kSmallest = std::numeric_limits<std::int64_t>::min();

class SpecialTime : public QSTime {
 public:
  using QSTime::QSTime;
};

TEST(QSTimeTest, ReadsTheRealTimeClock) {
  TestPlatform platform;
  platform.hostInformation().setRealTime({1700000000, 250000000});
  const QSTime time;
  EXPECT_EQ(time.timeSpec().tv_sec, 1700000000);
  EXPECT_EQ(time.timeSpec().tv_nsec, 250000000);
  EXPECT_EQ(currentDate(), QSDate{1700000000.25});
}

TEST(QSTimeDeathTest, EndsTheProcessWhenTheClockCannotBeRead) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(
      {
        TestPlatform platform;
        platform.hostInformation().failRealTime(EINVAL);
        QSTime{};
      },
      "^Assertion failed: \\(clock_gettime\\(CLOCK_REALTIME, &ts\\) == 0\\), "
      "function -\\[QSTime init\\], file QSTime, line 28\\.\n$");
}

struct Split {
  double seconds;
  std::int64_t whole;
  std::int64_t nanoseconds;
};

TEST(QSTimeTest, SplitsADateWithoutRounding) {
  const Split splits[] = {
      {0, 0, 0},
      {-0.0, 0, 0},
      {1.5, 1, 500000000},
      {-1.5, -1, -500000000},
      {-0.25, 0, -250000000},
      {0.999999999, 0, static_cast<std::int64_t>(0.999999999 * 1e9)},
      {1700000000.25, 1700000000, 250000000},
      {1e-10, 0, 0},
      {-1e-10, 0, 0},
      {0x1p53, std::int64_t{1} << 53, 0},
  };
  for (const Split& split : splits) {
    const QSTime time{QSDate{split.seconds}};
    EXPECT_EQ(time.timeSpec().tv_sec, split.whole) << split.seconds;
    EXPECT_EQ(time.timeSpec().tv_nsec, split.nanoseconds) << split.seconds;
  }
}

TEST(QSTimeTest, SaturatesWhatNoSecondsCanHold) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  const Split splits[] = {
      {1e300, kLargest, 0},
      {-1e300, kSmallest, 0},
      {kInfinity, kLargest, 0},
      {-kInfinity, kSmallest, 0},
      {std::numeric_limits<double>::max(), kLargest, 0},
      {std::numeric_limits<double>::lowest(), kSmallest, 0},
      {0x1p63, kLargest, 0},
      {-0x1p63, kSmallest, 0},
      {std::nextafter(0x1p63, 0), kLargest - 1023, 0},
      {std::nextafter(-0x1p63, 0), kSmallest + 1024, 0},
      {std::numeric_limits<double>::quiet_NaN(), 0, 0},
      {std::numeric_limits<double>::denorm_min(), 0, 0},
  };
  for (const Split& split : splits) {
    const QSTime time{QSDate{split.seconds}};
    EXPECT_EQ(time.timeSpec().tv_sec, split.whole) << split.seconds;
    EXPECT_EQ(time.timeSpec().tv_nsec, split.nanoseconds) << split.seconds;
  }
}

TEST(QSTimeTest, AnyDoubleGivesPartsOfOneSignThatBelongTogether) {
  std::mt19937_64 random(20231114);  // the same doubles in every run, of all magnitudes
  for (int i = 0; i < 200000; ++i) {
    const auto seconds = std::bit_cast<double>(random());
    const timespec parts = QSTime(QSDate{seconds}).timeSpec();
    ASSERT_LT(parts.tv_nsec, 1000000000) << seconds;
    ASSERT_GT(parts.tv_nsec, -1000000000) << seconds;
    if (std::isnan(seconds)) {
      ASSERT_EQ(parts.tv_sec, 0);
      ASSERT_EQ(parts.tv_nsec, 0);
      continue;
    }
    ASSERT_TRUE(seconds < 0 ? parts.tv_sec <= 0 && parts.tv_nsec <= 0
                            : parts.tv_sec >= 0 && parts.tv_nsec >= 0)
        << seconds;
    if (std::abs(seconds) < 0x1p63) {
      ASSERT_EQ(static_cast<double>(parts.tv_sec), std::trunc(seconds)) << seconds;
    } else {
      ASSERT_EQ(parts.tv_sec, seconds < 0 ? kSmallest : kLargest) << seconds;
    }
  }
}

TEST(QSTimeTest, MakesADateInDoublePrecision) {
  EXPECT_EQ(QSTime(timespec{1700000000, 250000000}).date(), QSDate{1700000000.25});
  EXPECT_EQ(QSTime(timespec{-1, -500000000}).date(), QSDate{-1.5});
  EXPECT_EQ(QSTime(timespec{3, 1}).date(), QSDate{3.0 + 1 * 1e-9});
}

TEST(QSTimeTest, KeepsATimespecAsItIs) {
  const QSTime time(timespec{kSmallest, -7});
  EXPECT_EQ(time.timeSpec().tv_sec, kSmallest);
  EXPECT_EQ(time.timeSpec().tv_nsec, -7);
  EXPECT_TRUE(QSTime::timeWithTimespec(time.timeSpec())->isEqual(time));
  EXPECT_TRUE(QSTime::timeWithDate(QSDate{2.5})->isEqual(QSTime(timespec{2, 500000000})));
}

TEST(QSTimeTest, EqualTimesAreEqualAndHashAlike) {
  const QSTime one(timespec{5, 6});
  const QSTime same(timespec{5, 6});
  const QSTime copy = one;
  EXPECT_TRUE(one.isEqual(one));
  EXPECT_TRUE(one.isEqual(same));
  EXPECT_TRUE(one.isEqual(copy));
  EXPECT_EQ(one.hash(), same.hash());
  EXPECT_EQ(one.hash(), 11U);
}

TEST(QSTimeTest, TimesThatDifferInOnePartAreNotEqual) {
  const QSTime time(timespec{5, 6});
  EXPECT_FALSE(time.isEqual(QSTime(timespec{6, 5})));  // with the same hash
  EXPECT_FALSE(time.isEqual(QSTime(timespec{5, 7})));
  EXPECT_FALSE(time.isEqual(QSTime(timespec{4, 6})));
}

TEST(QSTimeTest, ASubclassIsEqualOnlyToItself) {
  const QSTime time(timespec{5, 6});
  const SpecialTime special(timespec{5, 6});
  EXPECT_FALSE(time.isEqual(special));
  EXPECT_TRUE(special.isEqual(special));
  EXPECT_TRUE(special.isEqual(time));
}

TEST(QSTimeTest, TheHashWraps) {
  EXPECT_EQ(QSTime(timespec{-1, 1}).hash(), 0U);
  EXPECT_EQ(QSTime(timespec{-1, -1}).hash(), std::numeric_limits<std::uint64_t>::max() - 1);
  EXPECT_EQ(QSTime(timespec{kLargest, kLargest}).hash(),
            std::numeric_limits<std::uint64_t>::max() - 1);
}

}  // namespace
}  // namespace quillsift
