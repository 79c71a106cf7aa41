#include "platform/linux/X11ServerCookie.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include "platform/FileDescriptor.h"
#include "platform/linux/FileReading.h"
#include "platform/linux/X11Authority.h"

namespace quillsift {

namespace {

// Of an authority file, and of a server's arguments.
constexpr std::size_t kLongestFile = std::size_t{1} << 20;

// What the kernel tells of a process looks like a file of that process's user.
bool isProcessInformation(int file) {
  struct statfs volume {};
  return ::fstatfs(file, &volume) != 0 || volume.f_type == PROC_SUPER_MAGIC;
}

// Looks before it opens: opening a device can do things.
std::optional<QSData> readOwnFile(const std::string& path, uid_t owner) {
  const FileDescriptor place(::open(path.c_str(), O_PATH | O_CLOEXEC));
  struct stat status {};
  if (!place.valid() || ::fstat(place.get(), &status) != 0) return std::nullopt;
  if (!S_ISREG(status.st_mode) || isProcessInformation(place.get())) return std::nullopt;
  if (owner != 0 && status.st_uid != owner) return std::nullopt;
  return readSmallFile("/proc/self/fd/" + std::to_string(place.get()), kLongestFile);
}

}  // namespace

std::optional<std::string> cookieOfServer(const PeerCredentials& server, const PlatformTree& tree) {
  if (server.processIdentifier <= 0) return std::nullopt;
  const std::string arguments = "/proc/" + std::to_string(server.processIdentifier) + "/cmdline";
  const auto list = readSmallFile(tree.resolve(arguments).value_or(""), kLongestFile);
  if (!list) return std::nullopt;
  const auto file = authorityFileIn(list->text());
  if (!file) return std::nullopt;
  const auto content = readOwnFile(tree.resolve(*file).value_or(""), server.userIdentifier);
  return content ? magicCookieIn(content->text()) : std::nullopt;
}

}  // namespace quillsift
