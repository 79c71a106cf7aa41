#pragma once

#include <optional>
#include <string>

#include "platform/linux/VolumeFacts.h"

namespace quillsift {

// Reads a device (or an image of one) and tells what is on it: nothing at all is an answer too, and
// so are contradictory signatures, which count as nothing. None with errno set when it cannot be
// read. Blocks for as long as the device does. Any thread.
std::optional<VolumeFacts> probeVolume(const std::string& path);

}  // namespace quillsift
