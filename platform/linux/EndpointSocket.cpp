#include "platform/linux/EndpointSocket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

namespace quillsift {

namespace {

constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kSocketMode = 0666;

// The array of names that the library hands out, each of them and itself malloc'ed.
struct NamesDeleter {
  void operator()(char** names) const {
    for (char** name = names; *name != nullptr; ++name)
      std::free(*name);
    std::free(static_cast<void*>(names));
  }
};

std::optional<sockaddr_un> socketAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(address.sun_path)) return std::nullopt;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

FileDescriptor unixSocket(int type) {
  return FileDescriptor(::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

// The functions below return 0 or an errno value.

int makeDirectory(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash == 0) return 0;
  const std::string directory = path.substr(0, slash);
  if (::mkdir(directory.c_str(), kDirectoryMode) != 0) return errno == EEXIST ? 0 : errno;
  return ::chmod(directory.c_str(), kDirectoryMode) == 0 ? 0 : errno;  // the umask may have cut it
}

int lockEndpoint(const std::string& path, FileDescriptor* lock) {
  *lock = FileDescriptor(
      ::open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!lock->valid()) return errno;
  while (::flock(lock->get(), LOCK_EX) != 0) {
    if (errno != EINTR) return errno;
  }
  return 0;
}

// Whether the file at `path` is a socket that nobody listens on any more.
bool isAbandoned(const std::string& path, const sockaddr_un& address, int type) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) return false;
  // Without waiting: a full backlog (EAGAIN) is somebody too.
  const FileDescriptor probe = unixSocket(type);
  return probe.valid() &&
         ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
             0 &&
         errno == ECONNREFUSED;
}

int bindSocket(int socket, const std::string& path, const sockaddr_un& address, int type) {
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  if (::bind(socket, generic, sizeof(address)) == 0) return 0;
  if (errno != EADDRINUSE) return errno;
  if (!isAbandoned(path, address, type)) return EADDRINUSE;
  if (::unlink(path.c_str()) != 0) return errno;
  return ::bind(socket, generic, sizeof(address)) == 0 ? 0 : errno;
}

int listenAt(const std::string& path, int type, FileDescriptor* socket) {
  const auto address = socketAddress(path);
  if (!address) return ENAMETOOLONG;
  if (const int failure = makeDirectory(path)) return failure;
  FileDescriptor lock;
  if (const int failure = lockEndpoint(path, &lock)) return failure;
  *socket = unixSocket(type);
  if (!socket->valid()) return errno;
  if (const int failure = bindSocket(socket->get(), path, *address, type)) return failure;
  // Nobody can connect before listen, so there is no moment with other rights.
  if (::chmod(path.c_str(), kSocketMode) != 0) return errno;
  return ::listen(socket->get(), SOMAXCONN) == 0 ? 0 : errno;
}

// Hands over what was passed under a name until `take` says that it has enough. How much was passed
// under any name, or a negative errno value.
int takeNamed(const std::string& name, const std::function<bool(FileDescriptor passed)>& take) {
  // The variables stay: others may be taken after these. Children do not mistake them for theirs,
  // as they name this process.
  char** list = nullptr;
  const int count = sd_listen_fds_with_names(0, &list);
  const std::unique_ptr<char*, NamesDeleter> names(list);
  for (int i = 0; i < count; ++i) {
    if (name == names.get()[i] && !take(FileDescriptor(SD_LISTEN_FDS_START + i))) break;
  }
  return count;
}

int prepareListening(int socket) {
  const int matches = sd_is_socket_unix(socket, SOCK_STREAM, 1, nullptr, 0);
  if (matches <= 0) return matches < 0 ? -matches : EPROTOTYPE;
  const int flags = ::fcntl(socket, F_GETFL);
  return flags >= 0 && ::fcntl(socket, F_SETFL, flags | O_NONBLOCK) == 0 ? 0 : errno;
}

}  // namespace

std::vector<FileDescriptor> takePassedDescriptors(const std::string& name) {
  std::vector<FileDescriptor> descriptors;
  (void)takeNamed(name, [&](FileDescriptor passed) {
    descriptors.push_back(std::move(passed));
    return true;
  });
  return descriptors;
}

FileDescriptor takePassedSocket(const std::string& name, QSError* error) {
  FileDescriptor socket;
  const int count = takeNamed(name, [&](FileDescriptor passed) {
    socket = std::move(passed);
    return false;
  });
  if (count < 0) setError(error, QSError::posix(-count));
  if (socket.valid()) {
    const int failure = prepareListening(socket.get());
    if (failure == 0) return socket;
    setError(error, QSError::posix(failure));
  }
  return {};
}

FileDescriptor bindEndpointSocket(const std::string& path, QSError* error, int type) {
  FileDescriptor socket;
  const int failure = listenAt(path, type, &socket);
  if (failure == 0) return socket;
  setError(error, QSError::posix(failure, path));
  return {};
}

}  // namespace quillsift
