#pragma once

#include <string>

#include "platform/linux/PlatformTree.h"

namespace quillsift {

// The plan's directory for what lives no longer than the system, /private/tmp, is a link in the
// platform tree to a directory that only its owner can enter (no care about planted links) and that
// is gone after every boot. The service's unit makes that directory; where nobody did, this does,
// with its parents, as long as it may. Nothing happens where the tree has no such link, or the link
// leads somewhere. Returns what went wrong, for one line in the log; empty: nothing.
std::string makeTemporaryDirectory(const PlatformTree& tree);

}  // namespace quillsift
