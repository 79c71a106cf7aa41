#include "jobs/QSTime.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <typeinfo>

#include "platform/Platform.h"

namespace quillsift {

namespace {

constexpr double kNanosecondsPerSecond = 1e9;

// Whoever reads crash logs looks for exactly this line, in every kind of build.
[[noreturn]] void failClockAssertion() {
  std::fputs(
      "Assertion failed: (clock_gettime(CLOCK_REALTIME, &ts) == 0), function -[QSTime init], "
      "file QSTime, line 28.\n",
      stderr);
  std::abort();
}

timespec now() {
  timespec time{};
  if (Platform::current().hostInformation->realTime(&time) != 0) failClockAssertion();
  return time;
}

// A conversion of what does not fit would be undefined.
std::int64_t saturated(double whole) {
  using Limits = std::numeric_limits<std::int64_t>;
  constexpr double kBeyond = 0x1p63;  // exactly one more than the largest
  if (std::isnan(whole)) return 0;
  if (whole >= kBeyond) return Limits::max();
  if (whole < -kBeyond) return Limits::min();
  return static_cast<std::int64_t>(whole);
}

timespec split(double seconds) {
  double whole = 0;
  const double fraction = std::modf(seconds, &whole);
  timespec time{};
  time.tv_sec = saturated(whole);
  time.tv_nsec = saturated(fraction * kNanosecondsPerSecond);
  return time;
}

}  // namespace

QSDate currentDate() {
  return QSTime().date();
}

QSTime::QSTime() : time_(now()) {}

QSTime::QSTime(QSDate date) : time_(split(date.secondsSince1970)) {}

std::shared_ptr<QSTime> QSTime::timeWithTimespec(const timespec& time) {
  return std::make_shared<QSTime>(time);
}

std::shared_ptr<QSTime> QSTime::timeWithDate(QSDate date) {
  return std::make_shared<QSTime>(date);
}

QSDate QSTime::date() const {
  return QSDate{static_cast<double>(time_.tv_sec) + static_cast<double>(time_.tv_nsec) * 1e-9};
}

bool QSTime::isEqual(const QSTime& other) const {
  if (this == &other) return true;
  return typeid(other) == typeid(QSTime) && time_.tv_sec == other.time_.tv_sec &&
         time_.tv_nsec == other.time_.tv_nsec;
}

std::uint64_t QSTime::hash() const {
  return static_cast<std::uint64_t>(time_.tv_sec) + static_cast<std::uint64_t>(time_.tv_nsec);
}

}  // namespace quillsift
