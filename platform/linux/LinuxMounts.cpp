#include "platform/linux/LinuxMounts.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string_view>
#include <utility>

#include "platform/Text.h"
#include "platform/linux/DirectoryWalk.h"
#include "platform/linux/FileReading.h"
#include "platform/linux/VolumeProbe.h"

namespace quillsift {

namespace {

constexpr const char* kMountInfo = "/proc/self/mountinfo";
constexpr std::size_t kLongestMountInfo = std::size_t{256} << 20;  // far beyond the kernel's limit
constexpr const char* kVolumeType = "vellum";

// Layout of the volume mount record, as far as it matters here.
constexpr std::size_t kRecordSize = 336;
constexpr std::size_t kRecordDevicePathOffset = 0;  // pointer
constexpr std::size_t kRecordUserOffset = 324;      // 32 bits
constexpr std::size_t kRecordGroupOffset = 328;     // 32 bits

template <typename T>
T valueAt(std::span<const std::byte> record, std::size_t offset) {
  T value{};
  std::memcpy(&value, record.data() + offset, sizeof value);
  return value;
}

// The node of the block device with this number ("8:1"), as the kernel calls it; empty for what is
// none.
std::string nodeOfDevice(const std::string& number) {
  if (number.starts_with("0:")) return "";  // made up, as for btrfs
  std::string name = lastPathComponent(linkTarget("/sys/dev/block/" + number));
  std::replace(name.begin(), name.end(), '!', '/');
  return name.empty() ? "" : "/dev/" + name;
}

// The name of a device's node, where a link to it was mounted. Never looks outside of the kernel's
// own file system of devices: the source may be any text.
std::string behindLinks(const std::string& source) {
  constexpr std::string_view kDevices = "/dev/";
  if (!source.starts_with(kDevices) || hasParentComponent(source)) return source;
  const FileDescriptor devices = openDirectory(AT_FDCWD, std::string(kDevices), O_PATH);
  const FileDescriptor node = openLinked(devices.get(), source.substr(kDevices.size()), O_PATH);
  if (!node.valid()) return source;
  return linkTarget("/proc/self/fd/" + std::to_string(node.get()));
}

// Its third field.
std::string deviceNumber(const std::string& mountInfoLine) {
  std::istringstream fields(mountInfoLine);
  std::string field;
  for (int i = 0; i < 3; ++i)
    fields >> field;
  return field;
}

bool isOctal(char c) {
  return c >= '0' && c <= '7';
}

// The table writes blanks, tabs, newlines and backslashes as \ooo.
std::string withoutOctalEscapes(std::string_view text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size() && isOctal(text[i + 1]) && isOctal(text[i + 2]) &&
        isOctal(text[i + 3])) {
      const int value = (text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0');
      result += static_cast<char>(value);
      i += 3;
    } else {
      result += text[i];
    }
  }
  return result;
}

}  // namespace

LinuxMounts::LinuxMounts(std::function<std::string(const std::string&)> resolve)
    : LinuxMounts(std::move(resolve), probeVolume) {}

LinuxMounts::LinuxMounts(std::function<std::string(const std::string&)> resolve, Probe probe)
    : resolve_(std::move(resolve)), probe_(std::move(probe)) {}

MountTableEntry LinuxMounts::parseMountInfoLine(const std::string& line) {
  // id parent major:minor root mount-point options [optional...] - type source super-options
  std::istringstream fields(line);
  std::string field, root, mountPoint, type, source;
  for (int i = 0; i < 3; ++i)
    fields >> field;
  fields >> root >> mountPoint;
  while (fields >> field && field != "-") {
  }
  if (!(fields >> type >> source)) return {};
  if (root != "/" && type != "btrfs") return {};
  // Anybody may mount such a one, and call its source whatever they like.
  if (type == "fuse" || type.starts_with("fuse.")) return {};
  return {withoutOctalEscapes(source), withoutOctalEscapes(mountPoint)};
}

std::vector<MountTableEntry> LinuxMounts::table() {
  std::vector<MountTableEntry> entries;
  const auto mountInfo = readSmallFile(kMountInfo, kLongestMountInfo);
  std::istringstream lines(mountInfo ? std::string(mountInfo->text()) : std::string());
  for (std::string line; std::getline(lines, line);) {
    MountTableEntry entry = parseMountInfoLine(line);
    if (entry.mountedFrom.empty()) continue;
    const std::string node = nodeOfDevice(deviceNumber(line));
    entry.mountedFrom = node.empty() ? behindLinks(entry.mountedFrom) : node;
    entries.push_back(std::move(entry));
  }
  return entries;
}

bool LinuxMounts::makeDirectory(const std::string& path, mode_t mode) {
  const std::string name = lastPathComponent(path);
  const std::string parent = resolve_(path.substr(0, path.rfind('/')));
  if (parent.empty()) {  // not the root directory: there is no such place
    errno = ENOENT;
    return false;
  }
  return ::mkdir(joinedPath(parent, name).c_str(), mode) == 0;
}

std::string LinuxMounts::optionsFor(const std::string& type, std::span<const std::byte> record) {
  if (type != "vfat") return "";
  return formatted("uid=%u,gid=%u", valueAt<std::uint32_t>(record, kRecordUserOffset),
                   valueAt<std::uint32_t>(record, kRecordGroupOffset));
}

bool LinuxMounts::mount(const std::string& type, const std::string& directory, MountFlags flags,
                        std::span<const std::byte> record) {
  if (type != kVolumeType || record.size() < kRecordSize) {
    errno = type != kVolumeType ? ENODEV : EINVAL;
    return false;
  }
  // Whoever could not read the table takes a mounted device for one that is not.
  if (!readSmallFile(kMountInfo, kLongestMountInfo)) return false;
  const auto* const device = valueAt<const char*>(record, kRecordDevicePathOffset);
  const auto facts = probe_(device);
  if (!facts) return false;
  if (!facts->holdsFileSystem()) {
    errno = ENODEV;
    return false;
  }
  const std::string place = resolve_(directory);
  const std::string options = optionsFor(facts->type, record);
  // Who made the volume decides where its links lead. Kernels before 5.10 overlook the last flag.
  unsigned long kernelFlags = MS_NOSUID | MS_NODEV | MS_NOEXEC | MS_NOSYMFOLLOW;
  if (flags == MountFlags::synchronous) kernelFlags |= MS_SYNCHRONOUS;
  const auto mountWith = [&](unsigned long all) {
    return ::mount(device, place.c_str(), facts->type.c_str(), all, options.c_str()) == 0;
  };
  if (mountWith(kernelFlags)) return true;
  const bool writeProtected = errno == EACCES || errno == EROFS;
  return writeProtected && mountWith(kernelFlags | MS_RDONLY);
}

bool LinuxMounts::unmount(const std::string& mountPoint, bool force) {
  return ::umount2(resolve_(mountPoint).c_str(), UMOUNT_NOFOLLOW | (force ? MNT_DETACH : 0)) == 0;
}

}  // namespace quillsift
