#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/QSData.h"

namespace quillsift {

// What the daemon needs to know around volumes and files. Class methods only; any thread. Nothing
// here logs or fails: what cannot be found out is empty or none. The locations are absolute paths.
class QSDaemonUtils {
 public:
  using UUIDsToMountPoints = std::map<std::string, std::string>;

  QSDaemonUtils() = delete;

  // Where each storage object that has a UUID is mounted. What is not mounted is not in it.
  static UUIDsToMountPoints MountedVolumesUUIDsToMountPoints();

  // The extended attributes of an open file, names as the bytes they are. The descriptor stays the
  // caller's.
  static std::map<std::string, QSData> ExtendedAttributesWithFileDescriptor(int descriptor);

  // UUID of the volume that finished sessions are saved to: the firmware variable
  // "QS_AUTO_SAVE_VOL_UUID". Asked once per process; its absence is remembered as well.
  static std::optional<std::string> AutoSaveVolumeUUID();

  // Where the installer's product is, by the newest cookie at the root of one of the volumes; of
  // equally new ones the later volume's. A cookie that is no property list with a product's URL, or
  // no small regular file, is none.
  static std::optional<std::string> OstraProductURLFromOstraCookieFileForMountPoints(
      const std::vector<std::string>& mountPoints);
  // The same by the firmware variable "install-product-url", whose host is a volume's UUID.
  static std::optional<std::string>
  OstraProductURLFromOstraCookieNVRAMVariableForUUIDsToMountPoints(
      const UUIDsToMountPoints& mountPoints);

  // The installer's log on the volume it last worked on: beside the product that the firmware
  // variable names, else beside that of the newest cookie. None if there is no such file.
  static std::optional<std::string> OstraLogOnTarget();
};

}  // namespace quillsift
