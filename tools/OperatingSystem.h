#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "tools/Host.h"

namespace quillsift::tools {

// The settings of an os-release file: NAME=VALUE lines, values as a shell would read them.
std::map<std::string, std::string, std::less<>> parsedOperatingSystem(std::string_view text);

// The same of this system: the platform tree's /etc/os-release, else the machine's own, in both of
// its usual places. None when there is none.
std::optional<std::map<std::string, std::string, std::less<>>> operatingSystem(const Host& host);

// "Linux 6.1.0-18-amd64 x86_64 #1 SMP ...", as the kernel names itself.
std::string kernelVersion();

}  // namespace quillsift::tools
