#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>

#include "platform/linux/PeerCredentials.h"

namespace quillsift {

// The limits of the service endpoint. docs/endpoint.md names them for its users.
struct ServiceLimits {
  // Peers connected at once; one more is hung up on. Each takes three descriptors, so that a
  // quarter of the usual 1,024 is left for the work.
  std::size_t connections = 256;
  // Requests of one peer that are not answered yet. Nothing more is read from it meanwhile.
  std::size_t openRequests = 16;
  // Bytes of memory held by what one peer, and by what all peers together, have not read.
  std::size_t queuedForOne = std::size_t{64} << 20;
  std::size_t queuedForAll = std::size_t{256} << 20;
  // Longest message of a peer, its header included. The longest that makes sense carries a path.
  std::size_t messageBytes = std::size_t{256} << 10;
  // From being admitted to the end of the authentication handshake.
  std::chrono::milliseconds handshake = std::chrono::seconds(10);
  // How long no peer is accepted after the system had no descriptor or memory for one. It waits in
  // the backlog of the socket.
  std::chrono::milliseconds acceptPause{100};
};

// What a test can put in place of the system's answers.
struct ServiceConnectionSettings {
  ServiceLimits limits;
  // Who the peer on a connected socket is.
  std::function<std::optional<PeerCredentials>(int socket)> credentials = readPeerCredentials;
  // The group whose members hold the capability; none: nobody holds it by a group.
  std::function<std::optional<gid_t>()> capabilityGroup = [] {
    return systemGroup(kPeerCapabilityGroup);
  };
};

}  // namespace quillsift
