#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/Mounts.h"
#include "platform/linux/VolumeFacts.h"

namespace quillsift {

// Mounts of this mount namespace, from the kernel's own table.
class LinuxMounts : public Mounts {
 public:
  // What is on a device; none with errno set when it cannot be read.
  using Probe = std::function<std::optional<VolumeFacts>(const std::string& device)>;

  // `resolve` maps an absolute path onto the platform tree; it is asked for directories to make and
  // to mount on.
  explicit LinuxMounts(std::function<std::string(const std::string&)> resolve);
  LinuxMounts(std::function<std::string(const std::string&)> resolve, Probe probe);

  // Devices by the name of their node, whatever name or link they were mounted by. A mount of a
  // part of a volume is left out: it is not where the volume is (but for subvolumes, which are all
  // there is).
  std::vector<MountTableEntry> table() override;
  bool makeDirectory(const std::string& path, mode_t mode) override;
  // Mounts what is on the device, in its real type; nothing on it can be run, be a device, change
  // a user or lead elsewhere by a link. A write-protected device is mounted for reading only. The
  // record's user and group own the files of a file system that knows none. ENODEV where no file
  // system is recognised or the kernel lacks its type. Nothing is mounted while the table cannot be
  // read, since it looks empty then.
  bool mount(const std::string& type, const std::string& directory, MountFlags flags,
             std::span<const std::byte> record) override;
  // A forced unmount detaches the volume at once and leaves the rest to the kernel: refusing to
  // take a busy local file system away is all that the kernel's own force flag would do.
  bool unmount(const std::string& mountPoint, bool force) override;

  // One line of /proc/self/mountinfo as it is; empty names when it is none, or the mount of a part.
  static MountTableEntry parseMountInfoLine(const std::string& line);
  // The file system's own options for a mount: those of a volume mount record that it understands.
  static std::string optionsFor(const std::string& type, std::span<const std::byte> record);

 private:
  const std::function<std::string(const std::string&)> resolve_;
  const Probe probe_;
};

}  // namespace quillsift
