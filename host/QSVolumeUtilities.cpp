#include "host/QSVolumeUtilities.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>
#include <variant>

#include "host/QSLog.h"
#include "platform/Platform.h"
#include "platform/QSUUID.h"
#include "platform/Text.h"

namespace quillsift {

namespace {

constexpr const char* kVolumeClass = "VantorVellumVolume";
constexpr const char* kFileSystemType = "vellum";
constexpr const char* kMountParent = "/private/tmp/";
constexpr mode_t kMountDirectoryMode = 0755;
// Device paths and mount points are fields of this size, terminator included.
constexpr std::size_t kPathFieldSize = 1024;
constexpr int kMostRegistryPasses = 10;

// Layout of the volume mount record; what is not named here is zero.
constexpr std::size_t kRecordSize = 336;
constexpr std::size_t kRecordDevicePathOffset = 0;  // pointer
constexpr std::size_t kRecordModeOffset = 16;       // 16 bits, value 1
constexpr std::size_t kRecordUserOffset = 324;      // 32 bits
constexpr std::size_t kRecordGroupOffset = 328;     // 32 bits
constexpr std::uint16_t kRecordMode = 1;

std::string devicePath(const std::string& bsdName) {
  return ("/dev/" + bsdName).substr(0, kPathFieldSize - 1);
}

std::optional<std::string> mountPointOfDevice(const std::string& bsdName) {
  const std::string device = devicePath(bsdName);
  for (const MountTableEntry& entry : Platform::current().mounts->table()) {
    if (entry.mountedFrom != device) continue;
    if (entry.mountedOn.empty() || entry.mountedOn.front() == '/') return entry.mountedOn;
    return ("/" + entry.mountedOn).substr(0, kPathFieldSize - 1);
  }
  return std::nullopt;
}

template <typename T>
void store(std::array<std::byte, kRecordSize>& record, std::size_t offset, T value) {
  std::memcpy(record.data() + offset, &value, sizeof value);
}

bool mountDevice(const std::string& device, const std::string& directory) {
  std::array<char, kPathFieldSize> path{};
  device.copy(path.data(), path.size() - 1);
  std::array<std::byte, kRecordSize> record{};
  store(record, kRecordDevicePathOffset, static_cast<const char*>(path.data()));
  store(record, kRecordModeOffset, kRecordMode);
  store(record, kRecordUserOffset, static_cast<std::uint32_t>(::getuid()));
  store(record, kRecordGroupOffset, static_cast<std::uint32_t>(::getgid()));
  return Platform::current().mounts->mount(kFileSystemType, directory, MountFlags::synchronous,
                                           record);
}

// Mounts in a new directory, which stays when that fails.
std::optional<std::string> mountInNewDirectory(const std::string& bsdName) {
  const std::string directory = kMountParent + QSUUID::random().text();
  if (!Platform::current().mounts->makeDirectory(directory, kMountDirectoryMode)) {
    const int code = errno;
    QSLog(kLogError, 1, "MountPointForVellumVolumeUUID: Failed to mkdir('%s'). %s",
          directory.c_str(), systemErrorText(code).c_str());
    return std::nullopt;
  }
  const std::string device = devicePath(bsdName);
  if (!mountDevice(device, directory)) {
    const int code = errno;
    QSLog(kLogError, 1, "MountPointForVellumVolumeUUID: Failed to mount('%s') onto '%s'. %s",
          device.c_str(), directory.c_str(), systemErrorText(code).c_str());
    return std::nullopt;
  }
  return directory;
}

std::vector<std::string> uuidsOfOnePass(RegistryIterator& iterator) {
  std::vector<std::string> uuids;
  while (const auto object = iterator.next()) {
    if (auto uuid = textProperty(*object, "UUID")) uuids.push_back(std::move(*uuid));
  }
  return uuids;
}

}  // namespace

std::optional<std::string> QSVolumeUtilities::mountPointForVellumVolumeUUID(
    const std::string& volumeUUID, bool attemptMount, bool* didMount) {
  if (didMount != nullptr) *didMount = false;
  const auto volume =
      Platform::current().deviceRegistry->matchingObject({kVolumeClass, "UUID", volumeUUID});
  if (!volume) {
    QSLog(kLogError, 1, "MountPointForVellumVolumeUUID: No dr_object_t for the volume uuid: '%s'",
          volumeUUID.c_str());
    return std::nullopt;
  }
  const auto bsdName = textProperty(*volume, "BSD Name");
  if (!bsdName) {
    QSLog(kLogError, 1, "MountPointForVellumVolumeUUID: No BSD name for volume uuid: '%s'",
          volumeUUID.c_str());
    return std::nullopt;
  }
  if (auto mountPoint = mountPointOfDevice(*bsdName)) return mountPoint;

  if (attemptMount) {
    QSLog(kLogError, 1,
          "MountPointForVellumVolumeUUID: Volume UUID: '%s' BSD: '%s' is not mounted. Attempting "
          "to mount...",
          volumeUUID.c_str(), bsdName->c_str());
    if (auto directory = mountInNewDirectory(*bsdName)) {
      if (didMount != nullptr) *didMount = true;
      return directory;
    }
  }
  QSLog(kLogError, 1, "MountPointForVellumVolumeUUID: No mount point for the volume uuid: '%s'",
        volumeUUID.c_str());
  return std::nullopt;
}

bool QSVolumeUtilities::unmountVolumeAtPath(const std::string& path, bool force, QSError* error) {
  if (Platform::current().mounts->unmount(path, force)) return true;
  setError(error, QSError::posix(errno));
  return false;
}

void QSVolumeUtilities::EnsureVolumeIsMountedWithVolumeUUID(
    const std::string& volumeUUID, Perform perform, bool performOnlyIfMountAvailable,
    const std::shared_ptr<WorkGroup>& asyncGroup, QOSClass qos) {
  Platform::current().workQueues->global(qos).asyncInGroup(
      asyncGroup, [volumeUUID, perform = std::move(perform), performOnlyIfMountAvailable] {
        bool didMount = false;
        auto mountPoint = mountPointForVellumVolumeUUID(volumeUUID, true, &didMount);
        if (!mountPoint && performOnlyIfMountAvailable) return;
        perform(std::move(mountPoint), didMount);
      });
}

std::optional<std::vector<std::string>> QSVolumeUtilities::VellumVolumeUUIDsRestrictedToRole(
    std::int16_t role) {
  const auto iterator = Platform::current().deviceRegistry->matchingObjects(
      {kVolumeClass, "RoleValue", std::int64_t{role}});
  if (!iterator) return std::nullopt;
  std::vector<std::string> uuids;
  for (int pass = 0; pass < kMostRegistryPasses; ++pass) {
    iterator->reset();
    uuids = uuidsOfOnePass(*iterator);
    if (iterator->isValid()) break;  // nothing came or went during the pass
  }
  return uuids;
}

}  // namespace quillsift
