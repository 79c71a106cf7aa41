#include "platform/linux/X11Connection.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <xcb/xcb.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "platform/linux/PeerCredentials.h"
#include "platform/linux/X11Authority.h"
#include "platform/linux/X11ServerCookie.h"

namespace quillsift {

namespace {

// A server that has stopped accepting would block the call as well.
void limitConnecting(int socket, std::chrono::nanoseconds limit) {
  const auto microseconds = std::chrono::duration_cast<std::chrono::microseconds>(limit).count();
  const timeval time{.tv_sec = microseconds / 1000000, .tv_usec = microseconds % 1000000};
  (void)::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof(time));
}

FileDescriptor connectedSocket(const std::string& path, std::chrono::nanoseconds limit) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(address.sun_path)) {
    errno = path.empty() ? ENOENT : ENAMETOOLONG;
    return {};
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket.valid()) return {};
  limitConnecting(socket.get(), limit);
  while (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
         0) {
    if (errno == EAGAIN) errno = ETIMEDOUT;
    if (errno != EINTR) return {};
  }
  return socket;
}

std::string cookieFor(int socket, const PlatformTree& tree) {
  const auto server = readPeerCredentials(socket);
  if (!server) return {};
  return cookieOfServer(*server, tree).value_or("");
}

xcb_connection_t* greet(FileDescriptor socket, std::string cookie) {
  std::string method(cookie.empty() ? std::string_view() : kMagicCookie);
  xcb_auth_info_t proof{.namelen = static_cast<int>(method.size()),
                        .name = method.data(),
                        .datalen = static_cast<int>(cookie.size()),
                        .data = cookie.data()};
  return ::xcb_connect_to_fd(socket.release(), &proof);
}

}  // namespace

X11Connection::X11Connection(FileDescriptor socket, std::chrono::nanoseconds limit)
    : socket_(std::move(socket)), watchdog_("x11-watchdog") {
  watchdog_.runAfter(limit, [this] {
    timedOut_ = true;
    (void)::shutdown(socket_.get(), SHUT_RDWR);
  });
}

X11Connection::~X11Connection() {
  watchdog_.stop();
  if (connection_ != nullptr) ::xcb_disconnect(connection_);
}

std::unique_ptr<X11Connection> X11Connection::open(const std::string& socket,
                                                   const PlatformTree& tree,
                                                   std::chrono::nanoseconds limit) {
  FileDescriptor stream = connectedSocket(socket, limit);
  if (!stream.valid()) return nullptr;
  FileDescriptor copy(::fcntl(stream.get(), F_DUPFD_CLOEXEC, 0));
  if (!copy.valid()) return nullptr;
  std::string cookie = cookieFor(stream.get(), tree);
  try {
    std::unique_ptr<X11Connection> connection(new X11Connection(std::move(copy), limit));
    connection->connection_ = greet(std::move(stream), std::move(cookie));
    if (const int error = connection->error(); error != 0) {
      // The library does not tell a refusal from a server that has hung up.
      errno = error == ECONNRESET ? EACCES : error;
      return nullptr;
    }
    return connection;
  } catch (const std::system_error& error) {  // no thread
    errno = error.code().value();
    return nullptr;
  }
}

int X11Connection::error() const {
  if (timedOut_) return ETIMEDOUT;
  return ::xcb_connection_has_error(connection_) == 0 ? 0 : ECONNRESET;
}

}  // namespace quillsift
