#pragma once

#include <chrono>
#include <string>

#include "platform/FileDescriptor.h"
#include "platform/linux/BusPointers.h"

namespace quillsift {

// Speaking with a device as its client, each time until a deadline and no longer, whatever the
// device does: also when it never stops sending, or never reads what it has asked us.

using RemoteDeadline = std::chrono::steady_clock::time_point;

// Takes a connected socket through the handshake. Null when that fails. A device that passes files
// without being allowed to loses its connection.
BusPointer openRemoteBus(FileDescriptor socket, bool mayPassFiles, RemoteDeadline deadline);

struct RemoteQuestion {
  std::string path;
  std::string interface;
  std::string member;
  std::string argument;
};

// The device's answer; null when there is none, or it is an error.
BusMessagePointer askRemote(sd_bus* bus, const RemoteQuestion& question, RemoteDeadline deadline);

// Whether more of our answers wait to be sent than a device that reads them leaves.
bool isNotRead(sd_bus* bus);

}  // namespace quillsift
