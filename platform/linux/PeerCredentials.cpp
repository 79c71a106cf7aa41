#include "platform/linux/PeerCredentials.h"

#include <grp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace quillsift {

namespace {

// Most groups that a process can have on Linux.
constexpr std::size_t kMaximumGroups = 65536;
// Largest group entry that is read; a group with more members than fit is no group of ours.
constexpr std::size_t kMaximumGroupEntry = std::size_t{1} << 20;

std::optional<std::vector<gid_t>> readPeerGroups(int socket) {
  std::vector<gid_t> groups(64);
  while (groups.size() <= kMaximumGroups) {
    auto length = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length) == 0) {
      groups.resize(length / sizeof(gid_t));
      return groups;
    }
    // The kernel has put the length that it needs into `length`.
    if (errno != ERANGE || length <= groups.size() * sizeof(gid_t)) return std::nullopt;
    groups.resize(length / sizeof(gid_t));
  }
  return std::nullopt;
}

}  // namespace

bool PeerCredentials::isInGroup(gid_t group) const {
  return groupIdentifier == group ||
         std::find(supplementaryGroups.begin(), supplementaryGroups.end(), group) !=
             supplementaryGroups.end();
}

std::optional<PeerCredentials> readPeerCredentials(int socket) {
  struct ucred stamped {};
  socklen_t length = sizeof(stamped);
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &stamped, &length) != 0) return std::nullopt;
  if (length != sizeof(stamped)) return std::nullopt;
  auto groups = readPeerGroups(socket);
  if (!groups) return std::nullopt;
  return PeerCredentials{.processIdentifier = stamped.pid,
                         .userIdentifier = stamped.uid,
                         .groupIdentifier = stamped.gid,
                         .supplementaryGroups = std::move(*groups)};
}

std::optional<gid_t> systemGroup(const std::string& name) {
  std::vector<char> buffer(1024);
  while (buffer.size() <= kMaximumGroupEntry) {
    struct group entry {};
    struct group* found = nullptr;
    const int result = ::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
    if (result == 0) return found != nullptr ? std::optional(found->gr_gid) : std::nullopt;
    if (result == ERANGE) {
      buffer.resize(buffer.size() * 2);
    } else if (result != EINTR) {
      return std::nullopt;
    }
  }
  return std::nullopt;
}

}  // namespace quillsift
