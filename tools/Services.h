#pragma once

#include "tools/LineFilter.h"

namespace quillsift::tools {

// Drops, from the service manager's dump, the environment variables and credentials of its units.
// For one stream: it remembers the line before.
LineFilter dropEnvironments();

// Masks what names a disk by its maker, model and serial number: links below /dev/disk/by-id, and
// the device units that are named after them.
LineFilter maskDiskIdentifiers();

}  // namespace quillsift::tools
