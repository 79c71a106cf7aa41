#pragma once

#include <cstddef>
#include <optional>

#include "platform/PipeHandles.h"

namespace quillsift {

// The most that a read handle keeps, because all of it stays in memory until it is saved: far above
// any diagnostic archive, and less than would end a rescue system. Beyond it a read is EFBIG.
inline constexpr std::size_t kLongestTransfer = std::size_t{512} * 1024 * 1024;

// A pipe whose ends close on exec and do not block; its reader waits for bytes or for close. None
// and errno when descriptors have run out.
std::optional<Pipe> makeLinuxPipe(std::size_t longestTransfer = kLongestTransfer);

}  // namespace quillsift
