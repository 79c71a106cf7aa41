#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/QualityOfService.h"
#include "platform/WorkQueues.h"

namespace quillsift {

// What the plan asks about the machine's volumes. Any thread.
class VolumeServices {
 public:
  // The mount point, or none, and whether the volume was mounted for this call.
  using Perform = std::function<void(std::optional<std::string> mountPoint, bool didMount)>;

  virtual ~VolumeServices() = default;

  // UUIDs of the volumes with a role; none when the device registry cannot be asked.
  virtual std::optional<std::vector<std::string>> VellumVolumeUUIDsRestrictedToRole(
      std::int16_t role) = 0;
  // Returns at once. Finds or makes a mount point and runs `perform` on the global queue of `qos`,
  // all of it as a member of `asyncGroup`. Without a mount point `perform` is called only if
  // performOnlyIfMountAvailable is false.
  virtual void EnsureVolumeIsMountedWithVolumeUUID(const std::string& uuid, Perform perform,
                                                   bool performOnlyIfMountAvailable,
                                                   const std::shared_ptr<WorkGroup>& asyncGroup,
                                                   QOSClass qos) = 0;
  // The volume that a finished session is saved to by itself, if the firmware names one.
  virtual std::optional<std::string> AutoSaveVolumeUUID() = 0;
  // The installer's log on the volume it last worked on, if there is one.
  virtual std::optional<std::string> OstraLogOnTarget() = 0;
};

}  // namespace quillsift
