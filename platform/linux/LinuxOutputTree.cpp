#include "platform/linux/LinuxOutputTree.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/Text.h"
#include "platform/linux/DirectoryRemoval.h"
#include "platform/linux/DirectoryWalk.h"

namespace quillsift {

namespace {

// Still in the processor's cache when the kernel copies it on.
constexpr std::size_t kBlockSize = 128 * 1024;
// Until a file has its own mode: what it holds may be for few eyes.
constexpr mode_t kFirstMode = 0600;

// A file of our own in any case: one that stands there may be known by other names elsewhere, or
// be open to somebody.
constexpr int kWriteFlags = O_WRONLY | O_CREAT | O_EXCL;
// Somebody may put files there as fast as they are removed.
constexpr int kMostAttempts = 100;

// Why nothing is written in the place of what is no file.
int refusal(mode_t mode) {
  if (S_ISLNK(mode)) return ELOOP;
  return S_ISDIR(mode) ? EISDIR : EEXIST;
}

bool removeFile(int directory, const std::string& name) {
  struct stat status {};
  if (::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT;
  }
  if (!S_ISREG(status.st_mode)) {
    errno = refusal(status.st_mode);
    return false;
  }
  return ::unlinkat(directory, name.c_str(), 0) == 0 || errno == ENOENT;
}

// In this order: a change of owner clears the set-id bits. What cannot be set stays as it is.
void setAttributes(int descriptor, const OutputFileAttributes& attributes) {
  [[maybe_unused]] const int ignored = ::fchown(descriptor, attributes.ownerID, attributes.groupID);
  (void)::fchmod(descriptor, attributes.mode);
  for (const auto& [name, value] : attributes.extendedAttributes)
    (void)::fsetxattr(descriptor, name.c_str(), value.bytes().data(), value.length(), 0);
}

// Whether everything has reached the file, as some file systems tell only now.
bool closed(FileDescriptor file) {
  return ::close(file.release()) == 0 || errno == EINTR;
}

bool isHostsRoot(int directory) {
  struct stat root, found;
  const bool known = ::stat("/", &root) == 0 && ::fstat(directory, &found) == 0;
  return !known || (root.st_dev == found.st_dev && root.st_ino == found.st_ino);
}

}  // namespace

LinuxOutputTree::LinuxOutputTree(OutputTreePlace place)
    : place_(std::move(place)), block_(kBlockSize) {}

bool LinuxOutputTree::makeParentOf(const std::string& relativePath) {
  const std::size_t slash = relativePath.rfind('/');
  if (slash == std::string::npos) return true;
  std::string parent = relativePath.substr(0, slash);
  if (parent == knownParent_) return true;
  // A link counts as standing there: what goes through it fails when it is written.
  const bool exists = openInside(place_.directory.get(), parent, O_PATH).valid() || errno == ELOOP;
  if (!exists && !makeDirectories(parent)) return false;
  knownParent_ = std::move(parent);
  return true;
}

bool LinuxOutputTree::makeDirectories(const std::string& relativePath) {
  FileDescriptor above;
  for (const std::string& name : pathComponents(relativePath)) {
    const int parent = above.valid() ? above.get() : place_.directory.get();
    FileDescriptor directory = enterOrMake(parent, name, Links::refuse);
    if (!directory.valid()) return false;
    above = std::move(directory);
  }
  return true;
}

bool LinuxOutputTree::writeFile(const std::string& relativePath, std::span<const std::byte> bytes,
                                const OutputFileAttributes& attributes) {
  FileDescriptor file = createFile(relativePath.empty() ? "." : relativePath);
  if (!file.valid() || !writeAll(file.get(), bytes)) return false;
  setAttributes(file.get(), attributes);
  return closed(std::move(file));
}

FileDescriptor LinuxOutputTree::createFile(const std::string& relativePath) {
  const int top = place_.directory.get();
  for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
    FileDescriptor file = openInside(top, relativePath, kWriteFlags, kFirstMode);
    if (file.valid() || errno != EEXIST) return file;
    const std::size_t slash = relativePath.rfind('/');
    const std::string parent = slash == std::string::npos ? "." : relativePath.substr(0, slash);
    const FileDescriptor directory = openInside(top, parent, O_PATH | O_DIRECTORY);
    if (!directory.valid() || !removeFile(directory.get(), lastPathComponent(relativePath))) {
      return {};
    }
  }
  errno = EEXIST;
  return {};
}

// Each byte goes through memory of our own: a system call fails on a lost page of a mapped file,
// where the copy reads zeros.
bool LinuxOutputTree::writeAll(int descriptor, std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const std::size_t length = std::min(bytes.size(), block_.size());
    std::copy_n(bytes.begin(), length, block_.begin());
    for (std::size_t done = 0; done < length;) {
      const ssize_t count = ::write(descriptor, block_.data() + done, length - done);
      if (count < 0 && errno == EINTR) continue;
      if (count == 0) errno = EIO;
      if (count <= 0) return false;
      done += static_cast<std::size_t>(count);
    }
    bytes = bytes.subspan(length);
  }
  return true;
}

void LinuxOutputTree::removeWithEverything() {
  if (isHostsRoot(place_.directory.get())) return;
  if (place_.isLink) {
    ::unlinkat(place_.parent.get(), place_.name.c_str(), 0);
    return;
  }
  FileDescriptor opened = openDirectory(place_.directory.get(), ".", O_RDONLY);
  if (opened.valid()) emptyDirectory(std::move(opened));
  if (place_.parent.valid()) {
    ::unlinkat(place_.parent.get(), place_.name.c_str(), AT_REMOVEDIR);
  }
}

}  // namespace quillsift
