#include "platform/QSDate.h"

#include <cmath>
#include <ctime>

#include "platform/Text.h"

namespace quillsift {

namespace {

// Years 1 to 9999: what fits the text form.
constexpr double kFirstSecond = -62135596800.0;
constexpr double kLastSecond = 253402300799.0;

}  // namespace

std::string QSDate::description() const {
  const double whole = std::floor(secondsSince1970);
  if (!(whole >= kFirstSecond && whole <= kLastSecond)) {
    return formatted("%.0f seconds since 1970", secondsSince1970);
  }
  const auto seconds = static_cast<std::time_t>(whole);
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  return formatted("%04d-%02d-%02d %02d:%02d:%02d +0000", parts.tm_year + 1900, parts.tm_mon + 1,
                   parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
}

}  // namespace quillsift
