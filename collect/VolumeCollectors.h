#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "collect/CollectionSession.h"

namespace quillsift {

// One kind of result that a volume gives. In `path` "<UUID>" stands for the volume's and "<name>"
// for the name of a file on it.
struct VolumeMember {
  std::string_view path;
  bool sensitive;
  std::string_view program = {};  // that prints it; empty for a file of the volume
};

// What the collector of volumes of that role can give; empty for other roles.
std::span<const VolumeMember> volumeMembers(std::int16_t role);

// Collects one volume. Runs as a member of the session group; its jobs are members of a group of
// its own, for which it waits at most a minute. Without a mount point it does nothing; a volume
// that was mounted for it is registered for unmounting.
using VolumeCollector = void (*)(const CollectionSession& session, const std::string& volumeUUID,
                                 const std::optional<std::string>& mountPoint, bool didMount);

// The listing, and every "PreLoginData" right below a top-level directory as a tar stream. All of
// those have one relative path, so a directory save keeps the last.
void collectPrebootVolume(const CollectionSession& session, const std::string& volumeUUID,
                          const std::optional<std::string>& mountPoint, bool didMount);

// The listing, and the logs and results of system updates at the top of the volume.
void collectUpdateVolume(const CollectionSession& session, const std::string& volumeUUID,
                         const std::optional<std::string>& mountPoint, bool didMount);

// The logs of the activation.
void collectHardwareVolume(const CollectionSession& session, const std::string& volumeUUID,
                           const std::optional<std::string>& mountPoint, bool didMount);

}  // namespace quillsift
