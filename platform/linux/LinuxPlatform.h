#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/Platform.h"

namespace quillsift {

struct LinuxPlatformOptions {
  std::string treeDirectory;              // the platform tree; empty: beside the executable
  std::optional<std::string> socketPath;  // where the service listens when no socket was passed
  bool makesTemporaryDirectory = false;   // the plan's, which belongs to the daemon's user
};

// The adapters of this host, one for each role. Says in the system log when there is a platform
// tree that must not be used.
std::unique_ptr<Platform> makeLinuxPlatform(const LinuxPlatformOptions& options = {});

}  // namespace quillsift
