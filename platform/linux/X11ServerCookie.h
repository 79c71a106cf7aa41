#pragma once

#include <optional>
#include <string>

#include "platform/linux/PeerCredentials.h"
#include "platform/linux/PlatformTree.h"

namespace quillsift {

// The cookie of a running server, from the file that its arguments name. None when it has none, and
// for a file that belongs to somebody else than the server's user: the arguments are the server's
// own words, and must not make us tell it the secrets of others. Nor is a file read that has more
// than a MiB or belongs to the kernel's own information on processes.
std::optional<std::string> cookieOfServer(const PeerCredentials& server, const PlatformTree& tree);

}  // namespace quillsift
