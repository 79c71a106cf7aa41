#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace quillsift {

// The one capability that a peer can be asked for, and the system group whose members hold it.
inline constexpr const char* kPeerCapability = "io.vantor.private.quillsiftd";
inline constexpr const char* kPeerCapabilityGroup = "quillsift";

// Who a peer was when it connected. The kernel stamps it then, so nothing that the peer does later
// (another program, another user, its end) changes it.
struct PeerCredentials {
  pid_t processIdentifier = 0;
  uid_t userIdentifier = 0;
  gid_t groupIdentifier = 0;
  std::vector<gid_t> supplementaryGroups = {};

  bool isInGroup(gid_t group) const;
};

// Reads them from a connected Unix socket; none when the kernel does not tell.
std::optional<PeerCredentials> readPeerCredentials(int socket);

// The number of a system group; none when there is no such group.
std::optional<gid_t> systemGroup(const std::string& name);

}  // namespace quillsift
