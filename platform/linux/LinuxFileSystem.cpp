#include "platform/linux/LinuxFileSystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string_view>
#include <utility>

#include "platform/linux/DirectoryStream.h"
#include "platform/linux/LinuxFileHandle.h"

namespace quillsift {

namespace {

DirectoryStream openDirectory(const std::string& path) {
  FileDescriptor descriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOCTTY | O_CLOEXEC));
  if (!descriptor.valid()) return nullptr;
  DirectoryStream directory(::fdopendir(descriptor.get()));
  if (directory) (void)descriptor.release();
  return directory;
}

}  // namespace

LinuxFileSystem::LinuxFileSystem(std::shared_ptr<const PlatformTree> tree)
    : tree_(std::move(tree)) {}

std::unique_ptr<FileHandle> LinuxFileSystem::open(const std::string& path, bool followLinks) {
  const auto resolved = tree_->resolve(path);
  if (!resolved) {
    errno = ENOENT;
    return nullptr;
  }
  return LinuxFileHandle::open(*resolved, followLinks);
}

std::unique_ptr<FileHandle> LinuxFileSystem::adopt(int descriptor, bool closeOnRelease) {
  return std::make_unique<LinuxFileHandle>(descriptor, closeOnRelease);
}

bool LinuxFileSystem::exists(const std::string& path) {
  const auto resolved = tree_->resolve(path);
  struct stat status {};
  return resolved && ::stat(resolved->c_str(), &status) == 0;
}

bool LinuxFileSystem::isDirectory(const std::string& path) {
  const auto resolved = tree_->resolve(path);
  struct stat status {};
  return resolved && ::stat(resolved->c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::vector<std::string> LinuxFileSystem::entryNames(const std::string& directory) {
  std::vector<std::string> names;
  const auto resolved = tree_->resolve(directory);
  if (!resolved) return names;
  const auto stream = openDirectory(*resolved);
  if (!stream) return names;
  while (const dirent* entry = ::readdir(stream.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  return names;
}

std::optional<QSData> LinuxFileSystem::readWholeFile(const std::string& path, QSError* error) {
  std::optional<QSData> content;
  const auto resolved = tree_->resolve(path);
  errno = ENOENT;
  if (resolved) {
    const auto file = LinuxFileHandle::open(*resolved, true);
    if (file) content = file->readWhole();
  }
  if (!content) setError(error, QSError::posix(errno, path));
  return content;
}

}  // namespace quillsift
