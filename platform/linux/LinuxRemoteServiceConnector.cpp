#include "platform/linux/LinuxRemoteServiceConnector.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "platform/FileDescriptor.h"
#include "platform/linux/LinuxRemoteService.h"

namespace quillsift {

namespace {

constexpr std::chrono::seconds kHandshakeLimit{10};

// 0 or an errno value.
int connectTo(const std::string& path, FileDescriptor* socket) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) return ENAMETOOLONG;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  *socket = FileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket->valid()) return errno;
  // Also limits the wait for a place in the backlog, which then ends with EAGAIN.
  const timeval limit{.tv_sec = kHandshakeLimit.count(), .tv_usec = 0};
  if (::setsockopt(socket->get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) != 0)
    return errno;
  int result = 0;
  do {
    result = ::connect(socket->get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  } while (result != 0 && errno == EINTR);
  if (result == 0) return 0;
  return errno == EAGAIN ? ETIMEDOUT : errno;
}

bool isHangUp(int failure) {
  return failure == ECONNRESET || failure == EPIPE || failure == ENOTCONN || failure == EPERM;
}

}  // namespace

std::unique_ptr<RemoteService> LinuxRemoteServiceConnector::connect(
    const std::string& path, const WireInterface& server, const WireInterface& notifications,
    QSError* error) {
  FileDescriptor socket;
  int failure = connectTo(path, &socket);
  std::unique_ptr<RemoteService> service;
  if (failure == 0) {
    service = LinuxRemoteService::open(std::move(socket), server, notifications, kHandshakeLimit,
                                       &failure);
    if (!service && isHangUp(failure)) failure = EACCES;
  }
  if (!service) setError(error, QSError::posix(failure, path));
  return service;
}

}  // namespace quillsift
