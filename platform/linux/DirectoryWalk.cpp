#include "platform/linux/DirectoryWalk.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

namespace quillsift {

namespace {

constexpr mode_t kDirectoryMode = 0777;
constexpr std::uint64_t kInside = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;

FileDescriptor openResolving(int directory, const std::string& path, int flags, unsigned mode,
                             std::uint64_t resolveFlags) {
  open_how how{};
  how.flags = static_cast<__u64>(flags | O_CLOEXEC);
  how.mode = mode;
  how.resolve = resolveFlags;
  long descriptor = -1;
  do {
    descriptor = ::syscall(SYS_openat2, directory, path.c_str(), &how, sizeof how);
  } while (descriptor < 0 && errno == EINTR);
  return FileDescriptor(static_cast<int>(descriptor));
}

}  // namespace

std::vector<std::string> pathComponents(std::string_view path) {
  std::vector<std::string> components;
  while (!path.empty()) {
    const std::string_view component = path.substr(0, path.find('/'));
    if (!component.empty() && component != ".") components.emplace_back(component);
    path.remove_prefix(std::min(component.size() + 1, path.size()));
  }
  return components;
}

std::string linkTarget(const std::string& path) {
  std::array<char, PATH_MAX> target{};
  const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
  return {target.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

FileDescriptor openDirectory(int parent, const std::string& name, int flags) {
  int descriptor = -1;
  do {
    descriptor = ::openat(parent, name.c_str(), O_DIRECTORY | O_CLOEXEC | flags);
  } while (descriptor < 0 && errno == EINTR);
  return FileDescriptor(descriptor);
}

FileDescriptor enterOrMake(int parent, const std::string& name, Links links) {
  FileDescriptor entered =
      openDirectory(parent, name, O_PATH | (links == Links::follow ? 0 : O_NOFOLLOW));
  if (entered.valid() || errno != ENOENT) return entered;
  const bool made = ::mkdirat(parent, name.c_str(), kDirectoryMode) == 0;
  if (!made && errno != EEXIST) return {};  // EEXIST: a link to nothing, or somebody was faster
  FileDescriptor directory = openDirectory(parent, name, O_RDONLY | O_NOFOLLOW);
  // Not a failure: some file systems keep no modes.
  if (made && directory.valid()) (void)::fchmod(directory.get(), kDirectoryMode);
  return directory;
}

FileDescriptor openInside(int directory, const std::string& path, int flags, unsigned mode,
                          std::uint64_t resolveFlags) {
  return openResolving(directory, path, flags, mode, kInside | resolveFlags);
}

FileDescriptor openLinked(int directory, const std::string& path, int flags) {
  constexpr std::uint64_t kResolve = RESOLVE_BENEATH | RESOLVE_NO_XDEV | RESOLVE_NO_MAGICLINKS;
  return openResolving(directory, path, flags, 0, kResolve);
}

FileDescriptor openWithoutLinks(const std::string& path, int flags) {
  return openResolving(AT_FDCWD, path, flags, 0, RESOLVE_NO_SYMLINKS);
}

}  // namespace quillsift
