#pragma once

#include <algorithm>
#include <chrono>

namespace quillsift {

// The point `delay` from now on the monotonic clock, with "for ever" cut to a length that the
// clock can hold.
inline std::chrono::steady_clock::time_point deadlineAfter(std::chrono::nanoseconds delay) {
  constexpr std::chrono::nanoseconds kForEver = std::chrono::hours(24 * 365 * 50);
  return std::chrono::steady_clock::now() +
         std::clamp(delay, std::chrono::nanoseconds::zero(), kForEver);
}

}  // namespace quillsift
