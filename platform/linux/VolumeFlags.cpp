#include "platform/linux/VolumeFlags.h"

#include <linux/btrfs.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <time.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <system_error>

#include "platform/FileSystem.h"
#include "platform/Mutex.h"
#include "platform/Text.h"
#include "platform/linux/FileReading.h"

namespace quillsift {

namespace {

// Not every kernel header has all of them.
constexpr std::uint64_t kNetworkFileSystems[] = {
    0x6969,      // NFS
    0x517B,      // SMB
    0xFE534D42,  // SMB 2
    0xFF534D42,  // CIFS
    0x01021997,  // 9P
    0x00C36400,  // Ceph
    0x5346414F,  // AFS
    0x6B414653,  // AFS of the kernel
    0x73757245,  // Coda
    0x564C,      // NetWare
    0x65735546,  // FUSE
};

constexpr std::uint64_t kBtrfs = 0x9123683E;
// A device can be made from others that are made from others.
constexpr int kMostLayers = 8;

std::optional<bool> removableAttribute(const std::string& device) {
  const auto text = readSmallFile(device + "/removable");
  if (!text) return std::nullopt;
  return text->text().starts_with('1');
}

bool holdsRemovable(const std::string& directory, int layers);

bool isRemovable(const std::string& device, int layers) {
  // A partition has no such attribute; its directory lies in that of its disk, to which ".." leads
  // through the link.
  if (const auto attribute = removableAttribute(device)) {
    return *attribute || holdsRemovable(device + "/slaves", layers);
  }
  const std::string disk = device + "/..";
  return removableAttribute(disk).value_or(false) || holdsRemovable(disk + "/slaves", layers);
}

bool holdsRemovable(const std::string& directory, int layers) {
  if (layers == 0) return false;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    if (isRemovable(entry->path(), layers - 1)) return true;
  }
  return false;
}

// Files of btrfs lie on a number that the kernel made up; it lists the devices by file system.
bool isOnRemovableBtrfs(int descriptor) {
  btrfs_ioctl_fs_info_args information{};
  if (::ioctl(descriptor, BTRFS_IOC_FS_INFO, &information) != 0) return false;
  std::string identifier;
  for (std::size_t index = 0; index < std::size(information.fsid); ++index) {
    if (index == 4 || index == 6 || index == 8 || index == 10) identifier += '-';
    identifier += formatted("%02x", information.fsid[index]);
  }
  return holdsRemovableDevice("/sys/fs/btrfs/" + identifier + "/devices");
}

time_t secondsOfUptime() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return now.tv_sec;
}

// The volume asked for last: log files come from one as a rule, and the kernel's answers take
// longer than everything else that is read of a file.
class LastVolume {
 public:
  std::optional<std::uint64_t> flags(dev_t device) {
    const MutexLock lock(mutex_);
    const bool known = device != 0 && device == device_ && asked_ == secondsOfUptime();
    return known ? std::optional(flags_) : std::nullopt;
  }

  void remember(dev_t device, std::uint64_t flags) {
    const MutexLock lock(mutex_);
    device_ = device;
    asked_ = secondsOfUptime();
    flags_ = flags;
  }

 private:
  Mutex mutex_;
  dev_t device_ QS_GUARDED_BY(mutex_) = 0;  // none: there is no device of this number
  time_t asked_ QS_GUARDED_BY(mutex_) = 0;
  std::uint64_t flags_ QS_GUARDED_BY(mutex_) = 0;
};

}  // namespace

std::optional<std::uint64_t> volumeFlags(int descriptor, dev_t device) {
  static LastVolume lastVolume;
  if (const auto known = lastVolume.flags(device)) return known;
  struct statfs volume {};
  if (::fstatfs(descriptor, &volume) != 0) return std::nullopt;
  std::uint64_t flags = 0;
  const auto type = static_cast<std::uint64_t>(volume.f_type);
  if (!isNetworkFileSystem(type)) flags |= kMountLocal;
  const bool removable =
      type == kBtrfs ? isOnRemovableBtrfs(descriptor) : isRemovableDevice(device);
  if (removable) flags |= kMountRemovable;
  lastVolume.remember(device, flags);
  return flags;
}

bool isNetworkFileSystem(std::uint64_t type) {
  return std::find(std::begin(kNetworkFileSystems), std::end(kNetworkFileSystems), type) !=
         std::end(kNetworkFileSystems);
}

bool isRemovableDevice(dev_t device, const std::string& directory) {
  // Not a device but a number that the kernel made up, as for memory file systems.
  if (::major(device) == 0) return false;
  return isRemovable(
      directory + "/" + std::to_string(::major(device)) + ":" + std::to_string(::minor(device)),
      kMostLayers);
}

bool holdsRemovableDevice(const std::string& directory) {
  return holdsRemovable(directory, kMostLayers);
}

}  // namespace quillsift
