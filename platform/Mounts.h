#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace quillsift {

struct MountTableEntry {
  std::string mountedFrom;
  std::string mountedOn;
};

// Flags of a mount, in the numbers of the volume mount interface, not those of the host's kernel.
enum class MountFlags : std::uint32_t { none = 0, synchronous = 2 };

// Mounted volumes of the host. Any thread; may block for as long as a device does. Every operation
// that returns a bool fails with errno set.
class Mounts {
 public:
  virtual ~Mounts() = default;

  // A private copy of the mount table in its order, names as the kernel means them (no escapes).
  virtual std::vector<MountTableEntry> table() = 0;
  // Makes one directory to mount on. Its parent must exist.
  virtual bool makeDirectory(const std::string& path, mode_t mode) = 0;
  // Mounts by a file system's argument record; that of "vellum" begins with a pointer to the
  // device's path. The host's real file system is found by looking at the device.
  virtual bool mount(const std::string& type, const std::string& directory, MountFlags flags,
                     std::span<const std::byte> record) = 0;
  // `force` takes the volume away from whoever still uses it.
  virtual bool unmount(const std::string& mountPoint, bool force) = 0;
};

}  // namespace quillsift
