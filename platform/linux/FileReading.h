#pragma once

#include <cstddef>
#include <limits>
#include <optional>
#include <string>

#include "platform/FileDescriptor.h"
#include "platform/QSData.h"

namespace quillsift {

// Opens a file for reading, never waiting for a writer or a carrier. Invalid, with errno set, on
// failure.
FileDescriptor openForReading(const std::string& path);

// Reads from the descriptor's position to the end, into memory that grows in place. `expected` is
// the likely number of bytes. None with errno set on failure, EFBIG where more than `most` bytes
// come: what a file says of its size binds nobody.
std::optional<QSData> readToEnd(int descriptor, std::size_t expected = 0,
                                std::size_t most = std::numeric_limits<std::size_t>::max());

// More than any file that is read as a small one has: firmware logs and the arguments of a process
// can have some megabytes.
inline constexpr std::size_t kLongestSmallFile = std::size_t{16} << 20;

// A whole small file, such as the kernel's own. None with errno set on failure, EFBIG for a longer
// one than `most`.
std::optional<QSData> readSmallFile(const std::string& path, std::size_t most = kLongestSmallFile);

}  // namespace quillsift
