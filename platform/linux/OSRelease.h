#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/PlatformTree.h"

namespace quillsift {

using OSRelease = std::map<std::string, std::string>;

// The assignments of an os-release file, quotes and escapes resolved. The last one of a name wins;
// a line that is no assignment, or whose quote is not closed, is skipped.
OSRelease parseOSRelease(std::string_view text);

// /etc/os-release of this system; none when it cannot be read.
std::optional<OSRelease> readOSRelease(const PlatformTree& tree);

}  // namespace quillsift
