#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/PlatformTree.h"
#include "platform/linux/VolumeFacts.h"

namespace quillsift {

// One block device as the system knows it, without the device's having been touched.
struct BlockDevice {
  std::string name;                     // "sda1"; its node is "/dev/" + name
  bool hasMedium = true;                // false: there is nothing that could be read
  std::optional<VolumeFacts> recorded;  // what udev's database says; none: it has no such device
};

// The block devices of this machine. Any thread.
class BlockDevices {
 public:
  virtual ~BlockDevices() = default;

  // Names as the kernel lists them, sorted; none when it cannot be asked.
  virtual std::optional<std::vector<std::string>> names() = 0;
  // None for a device that has gone.
  virtual std::optional<BlockDevice> device(const std::string& name) = 0;
  // Reads the device. None when it cannot be read, or not in reasonable time.
  virtual std::optional<VolumeFacts> probe(const BlockDevice& device) = 0;
};

// Those in /sys/class/block. The platform tree can name others in its place, so that a test sees
// its own devices only; what is known of a device comes from the kernel and from udev.
std::unique_ptr<BlockDevices> linuxBlockDevices(std::shared_ptr<const PlatformTree> tree);

}  // namespace quillsift
