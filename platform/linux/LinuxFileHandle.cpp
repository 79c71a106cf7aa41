#include "platform/linux/LinuxFileHandle.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "platform/linux/DirectoryWalk.h"
#include "platform/linux/FileReading.h"
#include "platform/linux/GuardedMapping.h"
#include "platform/linux/VolumeFlags.h"

namespace quillsift {

namespace {

constexpr std::uint32_t kUsualBlockSize = 4096;
constexpr std::uint32_t kSmallestBlockSize = 512;

// Some of the kernel's own regular files wait for content: not here.
constexpr int kReadFlags = O_RDONLY | O_NOCTTY | O_NONBLOCK;

ObjectType objectType(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return kRegularFileType;
    case S_IFDIR:
      return kDirectoryType;
    case S_IFBLK:
      return kBlockDeviceType;
    case S_IFCHR:
      return kCharacterDeviceType;
    case S_IFLNK:
      return kSymbolicLinkType;
    case S_IFSOCK:
      return kSocketType;
    case S_IFIFO:
      return kFIFOType;
    default:
      return kUnknownType;
  }
}

timespec asTimespec(const statx_timestamp& time) {
  return {.tv_sec = time.tv_sec, .tv_nsec = time.tv_nsec};
}

FileMetadata asMetadata(const struct statx& status) {
  FileMetadata metadata;
  metadata.objectType = objectType(status.stx_mode);
  metadata.ownerID = status.stx_uid;
  metadata.groupID = status.stx_gid;
  metadata.accessMask = status.stx_mode;
  // Readers advance by this much: it must not be zero.
  metadata.preferredBlockSize =
      status.stx_blksize == 0 ? kUsualBlockSize : std::max(status.stx_blksize, kSmallestBlockSize);
  // Only these have content; the size of a directory or a device is something else.
  if (S_ISREG(status.stx_mode) || S_ISLNK(status.stx_mode)) {
    metadata.dataLength = static_cast<std::int64_t>(status.stx_size);
  }
  const auto timeIfKept = [&](std::uint32_t bit, const statx_timestamp& time) {
    return (status.stx_mask & bit) != 0 ? std::optional(asTimespec(time)) : std::nullopt;
  };
  metadata.creationTime = timeIfKept(STATX_BTIME, status.stx_btime);
  metadata.modificationTime = timeIfKept(STATX_MTIME, status.stx_mtime);
  metadata.changeTime = timeIfKept(STATX_CTIME, status.stx_ctime);
  metadata.accessTime = timeIfKept(STATX_ATIME, status.stx_atime);
  return metadata;
}

// One attribute's value; none when it is there but cannot be read.
std::optional<QSData> extendedAttribute(int descriptor, const char* name) {
  const ssize_t size = ::fgetxattr(descriptor, name, nullptr, 0);
  if (size < 1) return QSData();
  std::vector<std::byte> value(static_cast<std::size_t>(size));
  // The length stays that of the first look, also if the value got shorter meanwhile.
  if (::fgetxattr(descriptor, name, value.data(), value.size()) == -1) return std::nullopt;
  return QSData(std::move(value));
}

int openRetrying(const char* path, int flags) {
  int descriptor = -1;
  do {
    descriptor = ::open(path, flags | O_CLOEXEC);
  } while (descriptor < 0 && errno == EINTR);
  return descriptor;
}

// Why an object of this type has no content to read, as an errno value; 0 for a regular file.
int whyUnreadable(mode_t mode) {
  if (S_ISREG(mode)) return 0;
  return S_ISDIR(mode) ? EISDIR : EINVAL;
}

// The first `length` bytes in memory of their own. None with errno set, ENODATA when there are
// fewer.
std::optional<QSData> copyOfStart(int descriptor, std::size_t length) {
  const std::shared_ptr<std::byte> bytes(static_cast<std::byte*>(std::malloc(length)), std::free);
  if (!bytes) return std::nullopt;  // errno is ENOMEM
  for (std::size_t position = 0; position < length;) {
    const ssize_t count = ::pread(descriptor, bytes.get() + position, length - position,
                                  static_cast<off_t>(position));
    if (count < 0 && errno == EINTR) continue;
    if (count == 0) errno = ENODATA;
    if (count <= 0) return std::nullopt;
    position += static_cast<std::size_t>(count);
  }
  return QSData(bytes, {bytes.get(), length});
}

// Whether the failure of a mapping says nothing against reading: there are too many, or the file is
// one of the kernel's own, of which some say EIO.
bool mayBeReadInstead(int failure) {
  return failure == ENOMEM || failure == ENODEV || failure == EIO;
}

bool isLocalAndFixed(std::uint64_t flags) {
  return (flags & (kMountLocal | kMountRemovable)) == kMountLocal;
}

}  // namespace

LinuxFileHandle::LinuxFileHandle(int descriptor, bool owned) : file_(descriptor), owned_(owned) {
  struct stat status {};
  whyUnreadable_ = ::fstat(descriptor, &status) == 0 ? whyUnreadable(status.st_mode) : errno;
  device_ = status.st_dev;
}

LinuxFileHandle::LinuxFileHandle(FileDescriptor file, const struct stat& status)
    : file_(std::move(file)),
      owned_(true),
      device_(status.st_dev),
      whyUnreadable_(whyUnreadable(status.st_mode)) {}

LinuxFileHandle::~LinuxFileHandle() {
  if (!owned_) (void)file_.release();
}

bool LinuxFileHandle::readMetadata(FileMetadata* out) {
  struct statx status {};
  const unsigned wanted = STATX_BASIC_STATS | STATX_BTIME;
  if (::statx(file_.get(), "", AT_EMPTY_PATH, wanted, &status) != 0) return false;
  *out = asMetadata(status);
  return true;
}

bool LinuxFileHandle::readMountFlags(std::uint64_t* out) {
  const std::optional<std::uint64_t> flags = volumeFlags(file_.get(), device_);
  if (flags) *out = *flags;
  return flags.has_value();
}

std::map<std::string, QSData> LinuxFileHandle::extendedAttributes() {
  std::map<std::string, QSData> attributes;
  const ssize_t room = ::flistxattr(file_.get(), nullptr, 0);
  if (room <= 0) return attributes;
  std::string names(static_cast<std::size_t>(room), '\0');
  const ssize_t length = ::flistxattr(file_.get(), names.data(), names.size());
  for (std::size_t start = 0; static_cast<ssize_t>(start) < length;) {
    const char* const name = names.c_str() + start;
    std::optional<QSData> value = extendedAttribute(file_.get(), name);
    if (value) attributes[name] = std::move(*value);
    start += std::strlen(name) + 1;
  }
  return attributes;
}

std::int64_t LinuxFileHandle::read(std::span<std::byte> buffer) {
  if (whyUnreadable_ != 0) {
    errno = whyUnreadable_;
    return -1;
  }
  ssize_t count = -1;
  do {
    count = ::read(file_.get(), buffer.data(), buffer.size());
  } while (count < 0 && errno == EINTR);
  return count;
}

std::int64_t LinuxFileHandle::readLink(std::span<std::byte> buffer) {
  return ::readlinkat(file_.get(), "", reinterpret_cast<char*>(buffer.data()), buffer.size());
}

std::optional<QSData> LinuxFileHandle::map(std::size_t length) {
  if (length == 0 || whyUnreadable_ != 0) {
    errno = length == 0 ? EINVAL : whyUnreadable_;
    return std::nullopt;
  }
  std::optional<QSData> view = GuardedMapping::ofFile(file_.get(), length);
  if (!view && mayBeReadInstead(errno)) view = copyOfStart(file_.get(), length);
  return view;
}

std::optional<QSData> LinuxFileHandle::readWhole() {
  FileMetadata metadata;
  if (!readMetadata(&metadata)) return std::nullopt;
  if (whyUnreadable_ != 0) {
    errno = whyUnreadable_;
    return std::nullopt;
  }
  const auto length = static_cast<std::size_t>(metadata.dataLength);
  std::uint64_t flags = 0;
  if (length != 0 && readMountFlags(&flags) && isLocalAndFixed(flags)) {
    std::optional<QSData> view = GuardedMapping::ofFile(file_.get(), length);
    if (view || !mayBeReadInstead(errno)) return view;
  }
  return readToEnd(file_.get(), length);
}

// Most are files with no link on the way. Nobody without the right to make devices can put one in
// the place of such a file between the look and the opening: that would take a link. A FIFO of
// theirs is opened, without waiting, and closed again.
std::unique_ptr<LinuxFileHandle> LinuxFileHandle::openRegularFile(const std::string& path) {
  struct stat seen, opened;
  if (::lstat(path.c_str(), &seen) != 0 || !S_ISREG(seen.st_mode)) return nullptr;
  FileDescriptor file = openWithoutLinks(path, kReadFlags);
  if (!file.valid() || ::fstat(file.get(), &opened) != 0) return nullptr;
  const bool same = seen.st_dev == opened.st_dev && seen.st_ino == opened.st_ino;
  if (!same || !S_ISREG(opened.st_mode)) return nullptr;
  return std::unique_ptr<LinuxFileHandle>(new LinuxFileHandle(std::move(file), opened));
}

std::unique_ptr<LinuxFileHandle> LinuxFileHandle::open(const std::string& path, bool followLinks) {
  if (auto handle = openRegularFile(path)) return handle;
  FileDescriptor place(openRetrying(path.c_str(), O_PATH | (followLinks ? 0 : O_NOFOLLOW)));
  struct stat status {};
  if (!place.valid() || ::fstat(place.get(), &status) != 0) return nullptr;
  if (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) {
    // Through the descriptor, so that what was looked at is what is opened.
    const std::string reopened = "/proc/self/fd/" + std::to_string(place.get());
    place = FileDescriptor(openRetrying(reopened.c_str(), kReadFlags));
    if (!place.valid()) return nullptr;
  }
  return std::unique_ptr<LinuxFileHandle>(new LinuxFileHandle(std::move(place), status));
}

}  // namespace quillsift
