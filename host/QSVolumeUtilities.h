#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/QSError.h"
#include "platform/QualityOfService.h"
#include "platform/WorkQueues.h"

namespace quillsift {

// Finds Vellum volumes in the device registry, mounts and unmounts them. Class methods only, no
// state; any thread. Two callers that ask for one unmounted volume at once may mount it twice, each
// in a directory of its own.
class QSVolumeUtilities {
 public:
  // What is done with a volume: its mount point, if any, and whether it was mounted for this.
  using Perform = std::function<void(std::optional<std::string> mountPoint, bool didMount)>;

  QSVolumeUtilities() = delete;

  // Where the volume with this UUID is mounted. When it is not and `attemptMount` is true, mounts
  // it in a new directory under /private/tmp and sets `didMount` (may be null), else false.
  // None after lines in the log that say why. An empty string is a mount point, not none.
  static std::optional<std::string> mountPointForVellumVolumeUUID(const std::string& volumeUUID,
                                                                  bool attemptMount,
                                                                  bool* didMount);
  // False and `error` (POSIX domain, no path) on failure; nothing is logged.
  static bool unmountVolumeAtPath(const std::string& path, bool force, QSError* error);

  // Mounts the volume if needed and calls `perform`, asynchronously as a member of `asyncGroup` on
  // the worker queue of `qos`. Without a mount point `perform` is called with none, or not at all
  // when `performOnlyIfMountAvailable` is true.
  static void EnsureVolumeIsMountedWithVolumeUUID(const std::string& volumeUUID, Perform perform,
                                                  bool performOnlyIfMountAvailable,
                                                  const std::shared_ptr<WorkGroup>& asyncGroup,
                                                  QOSClass qos);

  // UUIDs of the volumes with this role, perhaps none of them; nothing when the registry cannot be
  // asked. Never logs.
  static std::optional<std::vector<std::string>> VellumVolumeUUIDsRestrictedToRole(
      std::int16_t role);
};

}  // namespace quillsift
