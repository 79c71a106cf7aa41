#pragma once

#include <optional>
#include <string>

#include "platform/linux/PlatformTree.h"

namespace quillsift {

// What this machine's firmware logged before it started the system, in the form in which the system
// control "kern.preoslog" offers such a log: a header and a ring that has not wrapped. It comes
// from the first of /sys/firmware/log, /sys/firmware/efi/ovmf_debug_log and
// /sys/firmware/opal/msglog that holds anything; the zeros with which firmware pads its buffers are
// left out at the end, and of a log above kMostFirmwareLogBytes only the newest are given. None
// when no log holds anything. Any thread.
std::optional<std::string> firmwareLogRing(const PlatformTree& tree);

inline constexpr std::size_t kMostFirmwareLogBytes = std::size_t{16} * 1024 * 1024;

}  // namespace quillsift
