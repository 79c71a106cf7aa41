#pragma once

#include <memory>
#include <string>

#include "platform/DeviceRegistry.h"
#include "platform/ProcessLauncher.h"
#include "platform/linux/BlockDevices.h"
#include "platform/linux/PlatformTree.h"

namespace quillsift {

// The machine's block devices and firmware variables as registry objects.
//
// Classes: "DrMedia" is every block device, "VantorVellumVolume" those that hold a file system.
// Properties: "BSD Name" (text, the node without "/dev/"), "UUID" (text; of the file system, else
// of the partition), "RoleValue" (a number). What udev's database knows is never read from the
// device again; only a device that is not in it is looked at, and one that cannot be read is no
// volume. An iterator is valid as long as the kernel's counter of device events stands still.
class LinuxDeviceRegistry : public DeviceRegistry {
 public:
  // `launcher` reads a U-Boot environment; it outlives this object.
  LinuxDeviceRegistry(std::shared_ptr<const PlatformTree> tree,
                      std::unique_ptr<BlockDevices> devices, ProcessLauncher& launcher);

  // "DrDeviceTree:/options" on a machine with firmware variables; null for everything else.
  std::unique_ptr<RegistryObject> objectAtPath(const std::string& path) override;
  std::unique_ptr<RegistryObject> matchingObject(const RegistryMatch& match) override;
  // Null where the kernel lists no block devices.
  std::unique_ptr<RegistryIterator> matchingObjects(const RegistryMatch& match) override;

 private:
  const std::shared_ptr<const PlatformTree> tree_;
  const std::shared_ptr<BlockDevices> devices_;  // iterators and objects hold it too
  ProcessLauncher& launcher_;
};

}  // namespace quillsift
