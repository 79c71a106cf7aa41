#include "tools/DeviceWalk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "tools/Descriptor.h"
#include "tools/Files.h"

namespace quillsift::tools {

namespace {

// Files that do something to the hardware or the log when they are read, or are its memory.
constexpr std::string_view kUnsafeNames[] = {
    "remove",     "rescan", "reset", "rom",   "config",
    "vpd",        "eeprom", "fifo",  "nvmem", "stable_pages_required",
    "capability",
};

// Keys and passwords that drivers keep in plain attributes.
constexpr std::string_view kSecretNames[] = {"key", "psk", "tls_key"};
constexpr std::string_view kSecretParts[] = {"secret", "password", "passphrase"};

struct Entry {
  std::string name;
  bool isDirectory;
};

// Files and directories, sorted; links and all else are left out.
std::vector<Entry> entriesOf(int directory) {
  std::vector<Entry> entries;
  const int copy = ::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(copy < 0 ? nullptr : ::fdopendir(copy),
                                                   ::closedir);
  if (!stream) return entries;
  while (const dirent* entry = ::readdir(stream.get())) {
    const std::string_view name = entry->d_name;
    const bool isDirectory = entry->d_type == DT_DIR;
    if (name == "." || name == ".." || !(isDirectory || entry->d_type == DT_REG)) continue;
    entries.push_back({std::string(name), isDirectory});
  }
  std::sort(entries.begin(), entries.end(),
            [](const Entry& one, const Entry& other) { return one.name < other.name; });
  return entries;
}

Descriptor openDirectory(int parent, const char* path) {
  return Descriptor(::openat(parent, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
}

bool isDevice(int directory) {
  return ::faccessat(directory, "uevent", F_OK, 0) == 0;
}

}  // namespace

bool isSafeToRead(std::string_view name, bool ofDevice) {
  const std::size_t slash = name.rfind('/');
  const std::string_view group = slash == name.npos ? "" : name.substr(0, slash);
  const std::string_view file = slash == name.npos ? name : name.substr(slash + 1);
  const auto isListed = [](std::string_view text, const auto& list) {
    return std::find(std::begin(list), std::end(list), text) != std::end(list);
  };
  if (isListed(file, kUnsafeNames) || isListed(file, kSecretNames)) return false;
  if (file.starts_with("resource")) return false;
  if (name == "wakeup_count" && !ofDevice) return false;  // the power directory's waits for events
  if (group == "ppi" || group.ends_with("/ppi")) return false;  // asks the firmware
  if (file == "level" && (group == "power" || group.ends_with("/power"))) return false;
  for (const std::string_view part : kSecretParts) {
    if (file.find(part) != std::string_view::npos) return false;
  }
  return true;
}

bool DeviceWalk::walk(const std::string& directory, std::string_view name) {
  const Descriptor top = openDirectory(AT_FDCWD, directory.c_str());
  if (!top.valid()) return false;
  visit(top.get(), name);
  return true;
}

void DeviceWalk::visit(int directory, std::string_view name) {
  Device device;
  device.isDevice = isDevice(directory);
  device.name = name;
  device.subsystem = linkNameAt(directory, "subsystem").value_or("");
  device.driver = linkNameAt(directory, "driver").value_or("");
  std::vector<std::string> children;
  gather(directory, "", device, &children);
  visitor_.beginDevice(device);
  for (const std::string& child : children) {
    if (!mayGoOn()) break;
    const Descriptor below = openDirectory(directory, child.c_str());
    if (below.valid()) visit(below.get(), child);
  }
  visitor_.endDevice();
}

// The attributes of a device and of its groups. Directories that are devices are not entered but
// noted as children, by their path below the device.
void DeviceWalk::gather(int directory, const std::string& prefix, Device& device,
                        std::vector<std::string>* children) {
  for (const Entry& entry : entriesOf(directory)) {
    if (!mayGoOn()) return;
    const std::string name = prefix + entry.name;
    if (!entry.isDirectory) {
      readAttribute(directory, entry.name.c_str(), name, device);
      continue;
    }
    const Descriptor below = openDirectory(directory, entry.name.c_str());
    if (!below.valid()) continue;
    if (isDevice(below.get())) {
      children->push_back(name);
    } else {
      gather(below.get(), name + "/", device, children);
    }
  }
}

void DeviceWalk::readAttribute(int directory, const char* file, const std::string& name,
                               Device& device) {
  struct stat status {};
  if (!isSafeToRead(name, device.isDevice)) return;
  if (::fstatat(directory, file, &status, AT_SYMLINK_NOFOLLOW) != 0) return;
  if ((status.st_mode & (S_IRUSR | S_IRGRP | S_IROTH)) == 0) return;  // root could, and must not
  const Descriptor attribute(
      ::openat(directory, file, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW));
  if (!attribute.valid()) {
    if (errno == EACCES || errno == EPERM) ++notPermitted_;
    return;
  }
  char bytes[kLongestValue];
  const ssize_t count = ::read(attribute.get(), bytes, sizeof bytes);
  // Many attributes have no value at the moment and say so with an error.
  if (count < 0) return;
  const std::string_view value(bytes, static_cast<std::size_t>(count));
  device.attributes.push_back({name, std::string(withoutFinalNewlines(value))});
}

bool DeviceWalk::mayGoOn() {
  stoppedEarly_ = stoppedEarly_ || limit_.passed();
  return !stoppedEarly_;
}

}  // namespace quillsift::tools
