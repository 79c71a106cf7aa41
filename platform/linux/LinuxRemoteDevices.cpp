#include "platform/linux/LinuxRemoteDevices.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include "platform/linux/DirectoryStream.h"
#include "platform/linux/LinuxPipe.h"
#include "platform/linux/LinuxRemoteDevice.h"
#include "platform/linux/PlatformTree.h"

namespace quillsift {

namespace {

bool isOurs(const struct stat& status) {
  return status.st_uid == 0 || status.st_uid == ::geteuid();
}

bool canBeTrusted(int directory) {
  struct stat status {};
  return ::fstat(directory, &status) == 0 && isOurs(status) &&
         (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

bool isDevice(int directory, const char* name) {
  struct stat status {};
  return ::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
         S_ISSOCK(status.st_mode) && isOurs(status);
}

// The first by name; empty when there is none.
std::string firstDevice(DIR* directory) {
  std::string first;
  while (const dirent* entry = ::readdir(directory)) {
    const std::string name = entry->d_name;
    if ((first.empty() || name < first) && isDevice(::dirfd(directory), name.c_str())) first = name;
  }
  return first;
}

}  // namespace

LinuxRemoteDevices::LinuxRemoteDevices(std::shared_ptr<const PlatformTree> tree,
                                       std::chrono::milliseconds limit)
    : tree_(std::move(tree)), limit_(limit) {}

std::shared_ptr<RemoteDevice> LinuxRemoteDevices::uniqueDevice(std::uint32_t type) {
  if (type != kRemoteDeviceType) return nullptr;
  const std::string path = tree_->resolve(kRemoteDevicesDirectory).value_or("");
  FileDescriptor opened(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!opened.valid() || !canBeTrusted(opened.get())) return nullptr;
  const DirectoryStream directory(::fdopendir(opened.get()));
  if (!directory) return nullptr;
  (void)opened.release();
  std::string name = firstDevice(directory.get());
  if (name.empty()) return nullptr;
  FileDescriptor place(::fcntl(::dirfd(directory.get()), F_DUPFD_CLOEXEC, 0));
  return std::make_shared<LinuxRemoteDevice>(std::move(place), std::move(name), limit_);
}

std::optional<Pipe> LinuxRemoteDevices::makePipe() {
  return makeLinuxPipe();
}

}  // namespace quillsift
