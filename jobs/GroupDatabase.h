#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace quillsift {

// The id of a group of the host, by name; none if there is no such group or the group database
// cannot be read. Any thread. May ask services beyond this machine: not for hot paths.
std::optional<gid_t> groupIdentifier(const std::string& name);

}  // namespace quillsift
