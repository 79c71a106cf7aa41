#include "platform/linux/LinuxRecoveryAgent.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/linux/DirectoryStream.h"
#include "platform/linux/FileReading.h"
#include "platform/linux/KernelEventSocket.h"

namespace quillsift {

namespace {

constexpr const char* kBuses[] = {"/sys/bus/usb/devices", "/sys/bus/thunderbolt/devices"};
constexpr std::string_view kSubsystems[] = {"usb", "thunderbolt"};

// The names in a directory, in order; none when it cannot be read.
std::optional<std::vector<std::string>> namesIn(const std::string& path) {
  const DirectoryStream directory(::opendir(path.c_str()));
  if (!directory) return std::nullopt;
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(directory.get())) {
    if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool isShut(const std::string& file) {
  const auto content = readSmallFile(file);
  return content && content->text().starts_with('0');
}

// The "authorized" files of the devices that are shut out; none on a machine without the buses.
std::optional<std::vector<std::string>> shutOut(const PlatformTree& tree) {
  std::vector<std::string> files;
  bool hasBus = false;
  for (const char* bus : kBuses) {
    const auto directory = tree.resolve(bus);
    const auto devices = directory ? namesIn(*directory) : std::nullopt;
    if (!devices) continue;
    hasBus = true;
    for (const std::string& device : *devices) {
      const auto file = tree.resolve(std::string(bus) + "/" + device + "/authorized");
      if (file && isShut(*file)) files.push_back(*file);
    }
  }
  if (!hasBus) return std::nullopt;
  return files;
}

// 0 or an errno value.
int approve(const std::string& file) {
  const FileDescriptor authorized(::open(file.c_str(), O_WRONLY | O_CLOEXEC));
  if (!authorized.valid()) return errno;
  return ::write(authorized.get(), "1", 1) == 1 ? 0 : errno;
}

bool concernsAccessories(std::string_view event) {
  const auto subsystem = valueInEvent(event, "SUBSYSTEM");
  return valueInEvent(event, "ACTION") == "add" && subsystem &&
         std::find(std::begin(kSubsystems), std::end(kSubsystems), *subsystem) !=
             std::end(kSubsystems);
}

}  // namespace

LinuxRecoveryAgent::LinuxRecoveryAgent(std::shared_ptr<const PlatformTree> tree, SystemLog& log,
                                       OpenEvents openEvents)
    : tree_(std::move(tree)), log_(log), openEvents_(std::move(openEvents)) {}

LinuxRecoveryAgent::~LinuxRecoveryAgent() {
  if (!thread_.joinable()) return;
  stop_.wake();
  thread_.join();
}

bool LinuxRecoveryAgent::enableAutomaticApproval(QSError* error) {
  return enable(true, error);
}

bool LinuxRecoveryAgent::enableNotifications(QSError* error) {
  return enable(false, error);
}

bool LinuxRecoveryAgent::enable(bool approves, QSError* error) {
  if (!shutOut(*tree_)) {
    setError(error, QSError::posix(ENOSYS));
    return false;
  }
  int code = 0;
  std::string path;
  {
    MutexLock lock(mutex_);
    approves_ = approves;
    // Watching first: what comes while the others are let in is not missed.
    code = startWatching();
  }
  const int failure = approves ? approveAll(&path) : 0;
  if (failure != 0) {
    setError(error, QSError::posix(failure, path));
  } else if (code != 0) {
    setError(error, QSError::posix(code));
  }
  return failure == 0 && code == 0;
}

int LinuxRecoveryAgent::approveAll(std::string* path) {
  int first = 0;
  for (const std::string& file : shutOut(*tree_).value_or(std::vector<std::string>())) {
    const int code = approve(file);
    if (code == 0 || first != 0) continue;
    first = code;
    if (path != nullptr) *path = file;
  }
  return first;
}

int LinuxRecoveryAgent::startWatching() {
  if (thread_.joinable()) return 0;
  if (!stop_.valid()) return errno;
  events_ = openEvents_();
  if (!events_.valid()) return errno;
  try {
    thread_ = std::thread([this] { watch(); });
  } catch (const std::system_error& failure) {
    return failure.code().value();
  }
  return 0;
}

void LinuxRecoveryAgent::watch() {
  KernelEventReader reader;
  for (;;) {
    if (waitUnlessWoken(events_.get(), POLLIN, stop_) != 0) return;
    bool isConcerned = false;
    while (const auto event = reader.next(events_.get()))
      isConcerned |= concernsAccessories(event->text);
    if (isConcerned) handleNewDevice();
  }
}

void LinuxRecoveryAgent::handleNewDevice() {
  bool approves = false;
  {
    MutexLock lock(mutex_);
    approves = approves_;
  }
  if (approves) {
    (void)approveAll(nullptr);  // a device may be gone again
    return;
  }
  for (const std::string& file : shutOut(*tree_).value_or(std::vector<std::string>())) {
    log_.write(kInstallFacility | kLogInfo, "An accessory waits for approval: " + file);
  }
}

}  // namespace quillsift
