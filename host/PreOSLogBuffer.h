#pragma once

#include <cstddef>
#include <cstdint>

namespace quillsift {

// Reads the log that firmware and boot stages wrote before the operating system started, which the
// host keeps as a ring behind a header in the system control "kern.preoslog".
//
// The result is the log in order, oldest byte first, in a block of its own that the caller frees
// with std::free; `length` (may be null) receives its bytes, which may be 0. Null with errno set on
// failure: that of the failing call (ENOENT on a host without such a log), ENOENT for less than a
// header, EFAULT for a header that does not fit the rest. Each failure is logged as an error,
// but for that of the memory for the result.
//
// Any thread. Asks again for as long as the log outgrows the memory made for it.
std::uint8_t* collect_pre_log_buffer(std::size_t* length);

}  // namespace quillsift
