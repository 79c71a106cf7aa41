#include "platform/linux/LinuxOutputFiles.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace quillsift {

namespace {

FileDescriptor openRetrying(const std::string& path, int flags, mode_t mode = 0) {
  int descriptor;
  do {
    descriptor = ::open(path.c_str(), flags | O_CLOEXEC, mode);
  } while (descriptor < 0 && errno == EINTR);
  return FileDescriptor(descriptor);
}

bool flushed(int descriptor) {
  int result;
  do {
    result = ::fsync(descriptor);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

std::string directoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return path.substr(0, slash == 0 ? 1 : slash);
}

bool isDirectory(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

LinuxOutputFiles::LinuxOutputFiles(std::shared_ptr<const PlatformTree> tree)
    : tree_(std::move(tree)) {}

std::string LinuxOutputFiles::placeOf(const std::string& path) const {
  if (isDirectory(directoryOf(path))) return path;
  return tree_->resolveForCreation(path).value_or(path);
}

FileDescriptor LinuxOutputFiles::openForWriting(const std::string& path) {
  // A pipe or a terminal that stands at the path must not hold up the daemon. Files do not care.
  // Nor may a link that somebody has put there lead to a file of the system.
  return openRetrying(placeOf(path), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0666);
}

bool LinuxOutputFiles::disableCaching(int descriptor) {
  return ::fcntl(descriptor, F_GETFD) >= 0;
}

bool LinuxOutputFiles::truncateAtPosition(int descriptor) {
  const off_t position = ::lseek(descriptor, 0, SEEK_CUR);
  if (position < 0) return false;
  int result;
  do {
    result = ::ftruncate(descriptor, position);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

bool LinuxOutputFiles::flush(int descriptor) {
  return flushed(descriptor);
}

bool LinuxOutputFiles::flushToMedium(int descriptor) {
  if (!flushed(descriptor)) return false;
  // A hint: nothing is lost where it has no effect.
  (void)::posix_fadvise(descriptor, 0, 0, POSIX_FADV_DONTNEED);
  return true;
}

bool LinuxOutputFiles::leadsToFile(const std::string& path, int descriptor) {
  struct stat open, found;
  if (::fstat(descriptor, &open) != 0 || ::stat(placeOf(path).c_str(), &found) != 0) return false;
  if (open.st_dev == found.st_dev && open.st_ino == found.st_ino) return true;
  errno = ESTALE;
  return false;
}

bool LinuxOutputFiles::renameAt(int fromDirectory, const std::string& from, int toDirectory,
                                const std::string& to) {
  return ::renameat(fromDirectory, placeOf(from).c_str(), toDirectory, placeOf(to).c_str()) == 0;
}

bool LinuxOutputFiles::flushDirectoryOf(const std::string& path) {
  const FileDescriptor directory = openRetrying(directoryOf(placeOf(path)), O_RDONLY | O_DIRECTORY);
  if (!directory.valid()) return false;
  // EINVAL: a file system whose directories have nothing to flush.
  return flushed(directory.get()) || errno == EINVAL;
}

void LinuxOutputFiles::remove(const std::string& path) {
  ::unlink(placeOf(path).c_str());
}

}  // namespace quillsift
