#include "collect/VolumeCollectors.h"

#include <strings.h>

#include <chrono>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "collect/CollectionPlan.h"
#include "host/SystemLogging.h"
#include "platform/Platform.h"
#include "platform/Text.h"

namespace quillsift {

namespace {

constexpr std::chrono::seconds kOwnJobsLimit(60);

constexpr VolumeMember kPreboot[] = {
    {"Volume Contents/Preboot/<UUID>.log", false, "/bin/ls"},
    {"Logs/Preboot/<UUID> [PreLoginData].tar", true, "/usr/bin/tar"},
};
constexpr const VolumeMember& kPrebootListing = kPreboot[0];
constexpr const VolumeMember& kPreLoginData = kPreboot[1];

constexpr VolumeMember kUpdate[] = {
    {"Volume Contents/Update/<UUID>.log", false, "/usr/bin/find"},
    {"Uplift/Update Volumes/<UUID>/<name>", false},
    {"Uplift/Update Volumes/<UUID>/nvram.plist", true},
};
constexpr const VolumeMember& kUpdateListing = kUpdate[0];
constexpr const VolumeMember& kUpdateFile = kUpdate[1];
constexpr const VolumeMember& kUpdateVariables = kUpdate[2];

constexpr VolumeMember kHardware[] = {{"Hardware Volumes/<UUID>/<name>", true}};
constexpr const VolumeMember& kHardwareLog = kHardware[0];

// The path of one result. What is put in is not looked at again.
std::string relativePath(const VolumeMember& member, const std::string& volumeUUID,
                         const std::string& name = "") {
  std::string path;
  std::string_view rest = member.path;
  while (!rest.empty()) {
    constexpr std::string_view kUUID = "<UUID>";
    constexpr std::string_view kName = "<name>";
    if (rest.starts_with(kUUID)) {
      path += volumeUUID;
      rest.remove_prefix(kUUID.size());
    } else if (rest.starts_with(kName)) {
      path += name;
      rest.remove_prefix(kName.size());
    } else {
      path += rest.front();
      rest.remove_prefix(1);
    }
  }
  return path;
}

std::uint32_t typeOf(const std::string& path) {
  const auto handle = Platform::current().fileSystem->open(path, /*followLinks=*/false);
  FileMetadata metadata;
  return handle && handle->readMetadata(&metadata) ? metadata.objectType : kUnknownType;
}

// Whoever made the volume may lead a link anywhere, to the secrets of the system that looks at it
// too. The listing of the volume still shows it.
bool isRefusedLink(const std::string& path) {
  if (typeOf(path) != kSymbolicLinkType) return false;
  logToSystem(kLogInfo, "Not following the link '%s' of a volume.", path.c_str());
  return true;
}

// One volume being collected; `group` is the collector's own.
struct Visit {
  const CollectionSession& session;
  CollectionHost& host;
  const std::string& volumeUUID;
  const std::string& mountPoint;
  std::shared_ptr<WorkGroup> group;

  void run(const VolumeMember& member, std::vector<std::string> arguments) const {
    host._runJobAtPath(std::string(member.program), std::move(arguments),
                       relativePath(member, volumeUUID), member.sensitive, currentQOS(), group,
                       session.uuid);
  }
  void copy(std::string path, const VolumeMember& member, const std::string& name) const {
    if (isRefusedLink(path)) return;
    host._runJobCollectingFileAtPath(std::move(path),
                                     relativePath(member, volumeUUID, fileNameText(name)),
                                     member.sensitive, currentQOS(), group, session.uuid);
  }
};

void collect(const CollectionSession& session, const std::string& volumeUUID,
             const std::optional<std::string>& mountPoint, bool didMount,
             const std::function<void(const Visit&)>& queueJobs) {
  if (!mountPoint) return;
  const auto group = Platform::current().workQueues->makeGroup();
  {
    const auto host = session.host.lock();
    if (!host) return;
    if (didMount) host->_unmountVolumeAtEndOfQuillsiftWithMountPoint(*mountPoint);
    queueJobs({session, *host, volumeUUID, *mountPoint, group});
  }
  (void)group->waitFor(kOwnJobsLimit);
}

// A directory itself, not a link that leads to one.
bool isRealDirectory(const std::string& path) {
  return Platform::current().fileSystem->isDirectory(path) && typeOf(path) == kDirectoryType;
}

void queuePrebootJobs(const Visit& visit) {
  visit.run(kPrebootListing, {"-la@OR", visit.mountPoint});
  FileSystem& files = *Platform::current().fileSystem;
  for (const std::string& top : files.entryNames(visit.mountPoint)) {
    const std::string directory = joinedPath(visit.mountPoint, top);
    if (!isRealDirectory(directory)) continue;
    for (const std::string& name : files.entryNames(directory)) {
      if (name != "PreLoginData") continue;
      const std::string found = joinedPath(directory, name);
      if (!isRefusedLink(found)) visit.run(kPreLoginData, {"-cf", "-", "-C", found, "."});
    }
  }
}

// As what an entry of an update volume is collected; null: it is not.
const VolumeMember* updateMember(const CollectionServices& services, const std::string& name) {
  const std::string extension = pathExtension(name);
  if (extension.empty()) return nullptr;
  const std::string base = name.substr(0, name.size() - extension.size() - 1);
  if (::strcasecmp(extension.c_str(), "log") == 0) {
    if (name.starts_with("mendd-") || base == "restore") return &kUpdateFile;
  }
  if (::strcasecmp(extension.c_str(), "plist") == 0) {
    if (base == "nvram" && services.isVantorInternal()) return &kUpdateVariables;
    if (base == "last_update_result") return &kUpdateFile;
  }
  return nullptr;
}

void queueUpdateJobs(const Visit& visit) {
  FileSystem& files = *Platform::current().fileSystem;
  visit.run(kUpdateListing, {"-Px", visit.mountPoint, "-ls"});
  const std::string modificationLog = joinedPath(visit.mountPoint, "mo.log");
  if (files.exists(modificationLog)) visit.copy(modificationLog, kUpdateFile, "mo.log");
  for (const std::string& name : files.entryNames(visit.mountPoint)) {
    if (const VolumeMember* member = updateMember(*visit.session.services, name))
      visit.copy(joinedPath(visit.mountPoint, name), *member, name);
  }
}

void queueHardwareJobs(const Visit& visit) {
  const std::string activator = joinedPath(visit.mountPoint, "Activator");
  const std::string logs = joinedPath(activator, "logs");
  if (isRefusedLink(activator) || isRefusedLink(logs)) return;
  for (const std::string& name : Platform::current().fileSystem->entryNames(logs)) {
    visit.copy(joinedPath(logs, name), kHardwareLog, name);
  }
}

}  // namespace

std::span<const VolumeMember> volumeMembers(std::int16_t role) {
  switch (role) {
    case 16:
      return kPreboot;
    case 192:
      return kUpdate;
    case 320:
      return kHardware;
    default:
      return {};
  }
}

void collectPrebootVolume(const CollectionSession& session, const std::string& volumeUUID,
                          const std::optional<std::string>& mountPoint, bool didMount) {
  collect(session, volumeUUID, mountPoint, didMount, queuePrebootJobs);
}

void collectUpdateVolume(const CollectionSession& session, const std::string& volumeUUID,
                         const std::optional<std::string>& mountPoint, bool didMount) {
  collect(session, volumeUUID, mountPoint, didMount, queueUpdateJobs);
}

void collectHardwareVolume(const CollectionSession& session, const std::string& volumeUUID,
                           const std::optional<std::string>& mountPoint, bool didMount) {
  collect(session, volumeUUID, mountPoint, didMount, queueHardwareJobs);
}

}  // namespace quillsift
