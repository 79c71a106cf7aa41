#pragma once

#include <time.h>

#include <cstdint>
#include <memory>

#include "platform/QSDate.h"

namespace quillsift {

// The current wall-clock time as a date, to the nanosecond as far as a double goes.
QSDate currentDate();

// A wall-clock instant with nanoseconds. Immutable.
class QSTime {
 public:
  // Now. Ends the process with an assertion message when the real-time clock cannot be read.
  QSTime();
  explicit QSTime(const timespec& time) : time_(time) {}
  // Seconds truncated to whole ones, saturating at the 64-bit limits (0 for a NaN); nanoseconds
  // truncated from the fraction. Before 1970 both come out negative; that is not normalised.
  explicit QSTime(QSDate date);
  virtual ~QSTime() = default;
  QSTime(const QSTime&) = default;
  QSTime& operator=(const QSTime&) = default;

  static std::shared_ptr<QSTime> timeWithTimespec(const timespec& time);
  static std::shared_ptr<QSTime> timeWithDate(QSDate date);

  const timespec& timeSpec() const { return time_; }
  QSDate date() const;

  // The same object is equal to itself. Otherwise `other` has to be a QSTime and no subclass of it,
  // with the same seconds and nanoseconds.
  bool isEqual(const QSTime& other) const;
  // Equal instants hash alike.
  std::uint64_t hash() const;

 private:
  timespec time_{};
};

}  // namespace quillsift
