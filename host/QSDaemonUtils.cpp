#include "host/QSDaemonUtils.h"

#include <time.h>

#include <cstddef>
#include <cstring>
#include <mutex>
#include <span>
#include <tuple>
#include <utility>
#include <variant>

#include "host/PropertyList.h"
#include "host/QSUtilities.h"
#include "host/URLParts.h"
#include "platform/Platform.h"
#include "platform/Text.h"

namespace quillsift {

namespace {

constexpr const char* kMediaClass = "DrMedia";
constexpr const char* kProductVariable = "install-product-url";
constexpr const char* kCookieFile = ".OstraProductInfo";
constexpr const char* kCookieURLKey = "Product URL";
constexpr const char* kLogFile = "ostra.log";
// Names in the mount table are compared and copied up to this length.
constexpr std::size_t kLongestName = 1024;
constexpr std::uint32_t kRegularFile = 1;  // an object type

// The name as the table has it: nothing is put before a relative one.
std::optional<std::string> mountPointOfDevice(const std::string& device) {
  for (const MountTableEntry& entry : Platform::current().mounts->table()) {
    if (std::strncmp(entry.mountedFrom.c_str(), device.c_str(), kLongestName) == 0)
      return entry.mountedOn.substr(0, kLongestName);
  }
  return std::nullopt;
}

struct Cookie {
  std::string productPath;  // on its volume
  timespec modified{};
};

bool isEarlier(const timespec& one, const timespec& other) {
  return std::tie(one.tv_sec, one.tv_nsec) < std::tie(other.tv_sec, other.tv_nsec);
}

// What a URL says of a place on a volume. None if that may lie elsewhere: whoever wrote the URL
// need not own more than the volume.
std::optional<URLParts> placeOnVolume(const std::string& url) {
  auto parts = splitURL(url);
  if (parts && hasParentComponent(parts->path)) return std::nullopt;
  return parts;
}

// All of a file whose length is known; none when it holds less or cannot be read.
std::optional<std::string> contentOf(FileHandle& file, std::size_t length) {
  std::string content(length, '\0');
  for (std::size_t have = 0; have < length;) {
    const auto rest = std::as_writable_bytes(std::span(content)).subspan(have);
    const std::int64_t count = file.read(rest);
    if (count <= 0) return std::nullopt;
    have += static_cast<std::size_t>(count);
  }
  return content;
}

// Whoever owns the volume may have put anything at its place, so only a small regular file is read.
std::optional<Cookie> readCookie(const std::string& mountPoint) {
  const auto file = Platform::current().fileSystem->open(joinedPath(mountPoint, kCookieFile), true);
  FileMetadata metadata;
  if (!file || !file->readMetadata(&metadata) || metadata.objectType != kRegularFile) {
    return std::nullopt;
  }
  const auto length = static_cast<std::uint64_t>(metadata.dataLength);
  if (length > PropertyList::kMostBytes) return std::nullopt;
  const auto content = contentOf(*file, static_cast<std::size_t>(length));
  const auto list = content ? PropertyList::fromXML(*content) : std::nullopt;
  const PropertyList* const entry = list ? list->find(kCookieURLKey) : nullptr;
  const auto* const url = entry != nullptr ? entry->get<std::string>() : nullptr;
  auto parts = url != nullptr ? placeOnVolume(*url) : std::nullopt;
  if (!parts) return std::nullopt;
  return Cookie{std::move(parts->path), metadata.modificationTime.value_or(timespec{})};
}

std::string productAt(const std::string& mountPoint, const std::string& path) {
  return path.empty() ? mountPoint : joinedPath(mountPoint, path);
}

std::optional<std::string> logBeside(const std::optional<std::string>& product) {
  if (!product) return std::nullopt;
  std::string log = joinedPath(*product, kLogFile);
  if (!Platform::current().fileSystem->exists(log)) return std::nullopt;
  return log;
}

}  // namespace

QSDaemonUtils::UUIDsToMountPoints QSDaemonUtils::MountedVolumesUUIDsToMountPoints() {
  UUIDsToMountPoints mountPoints;
  const auto media = Platform::current().deviceRegistry->matchingObjects({kMediaClass, "", ""});
  if (!media) return mountPoints;
  while (const auto object = media->next()) {
    const auto name = textProperty(*object, "BSD Name");
    const auto uuid = textProperty(*object, "UUID");
    if (!name || !uuid) continue;
    if (auto mountPoint = mountPointOfDevice("/dev/" + *name)) {
      mountPoints.insert_or_assign(*uuid, std::move(*mountPoint));
    }
  }
  return mountPoints;
}

std::map<std::string, QSData> QSDaemonUtils::ExtendedAttributesWithFileDescriptor(int descriptor) {
  const auto file = Platform::current().fileSystem->adopt(descriptor, /*closeOnRelease=*/false);
  return file ? file->extendedAttributes() : std::map<std::string, QSData>();
}

std::optional<std::string> QSDaemonUtils::AutoSaveVolumeUUID() {
  static std::once_flag asked;
  // Never destroyed: other threads may still ask while the process ends.
  static std::optional<std::string>* const uuid = new std::optional<std::string>;
  std::call_once(asked, [] { *uuid = QSUtilities::NVRAMStringForKey("QS_AUTO_SAVE_VOL_UUID"); });
  return *uuid;
}

std::optional<std::string> QSDaemonUtils::OstraProductURLFromOstraCookieFileForMountPoints(
    const std::vector<std::string>& mountPoints) {
  std::optional<std::string> product;
  timespec newest{};
  for (const std::string& mountPoint : mountPoints) {
    const auto cookie = readCookie(mountPoint);
    if (!cookie || (product && isEarlier(cookie->modified, newest))) continue;
    product = productAt(mountPoint, cookie->productPath);
    newest = cookie->modified;
  }
  return product;
}

std::optional<std::string>
QSDaemonUtils::OstraProductURLFromOstraCookieNVRAMVariableForUUIDsToMountPoints(
    const UUIDsToMountPoints& mountPoints) {
  const auto url = QSUtilities::NVRAMStringForKey(kProductVariable);
  const auto parts = url ? placeOnVolume(*url) : std::nullopt;
  if (!parts) return std::nullopt;
  const auto volume = mountPoints.find(parts->host);
  if (volume == mountPoints.end()) return std::nullopt;
  return productAt(volume->second, parts->path);
}

std::optional<std::string> QSDaemonUtils::OstraLogOnTarget() {
  const UUIDsToMountPoints volumes = MountedVolumesUUIDsToMountPoints();
  if (auto log =
          logBeside(OstraProductURLFromOstraCookieNVRAMVariableForUUIDsToMountPoints(volumes))) {
    return log;
  }
  std::vector<std::string> mountPoints;
  mountPoints.reserve(volumes.size());
  for (const auto& [uuid, mountPoint] : volumes)
    mountPoints.push_back(mountPoint);
  return logBeside(OstraProductURLFromOstraCookieFileForMountPoints(mountPoints));
}

}  // namespace quillsift
