#include "platform/linux/LinuxServiceListener.h"

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <sys/socket.h>

#include <cerrno>
#include <optional>
#include <utility>

#include "platform/linux/EndpointSocket.h"
#include "platform/linux/LinuxServiceConnection.h"

namespace quillsift {

namespace {

// Peers taken from the backlog in one turn, so that a crowd does not keep the connected waiting.
constexpr int kAcceptsPerTurn = 16;

// Whether a failed accept says something about that one peer only.
bool concernsOnePeer(int failure) {
  return failure == EINTR || failure == ECONNABORTED || failure == EPERM;
}

}  // namespace

// The part that lives on the service thread. Its waits keep it alive until close.
class LinuxServiceListener::Acceptor : public std::enable_shared_from_this<Acceptor> {
 public:
  explicit Acceptor(ServiceHub& hub) : hub_(hub) {}

  void setHandler(AcceptHandler handler) { handler_ = std::move(handler); }

  // 0 or an errno value.
  int open(FileDescriptor socket) {
    waits_.emplace(hub_.thread().context());
    asio::error_code failure;
    waits_->descriptor.assign(socket.get(), failure);
    if (failure) {
      waits_.reset();
      return failure.value();
    }
    (void)socket.release();
    wait();
    return 0;
  }

  void close() {
    waits_.reset();
    next_ = {};
    handler_ = nullptr;
  }

 private:
  struct Waits {
    explicit Waits(asio::io_context& context) : descriptor(context), pause(context) {}
    asio::posix::stream_descriptor descriptor;
    asio::steady_timer pause;
  };

  void wait() {
    waits_->descriptor.async_wait(asio::posix::stream_descriptor::wait_read,
                                  [self = shared_from_this()](const asio::error_code&) {
                                    if (self->waits_) self->acceptSome();
                                  });
  }

  // The peers stay in the backlog; asking again at once would only burn time.
  void pause() {
    waits_->pause.expires_after(hub_.settings().limits.acceptPause);
    waits_->pause.async_wait([self = shared_from_this()](const asio::error_code&) {
      if (self->waits_) self->acceptSome();
    });
  }

  void acceptSome() {
    bool accepted = false;
    for (int i = 0; waits_ && i < kAcceptsPerTurn; ++i) {
      if (!next_.feed.valid() && !next_.makePair()) return pause();
      FileDescriptor peer(::accept4(waits_->descriptor.native_handle(), nullptr, nullptr,
                                    SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (peer.valid()) {
        accepted = true;
        admit(std::move(peer));
      } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
        return wait();
      } else if (!concernsOnePeer(errno)) {
        return pause();
      }
    }
    if (!waits_) return;
    // A peer that is refused before it leaves the backlog would be found there for ever.
    accepted ? wait() : pause();
  }

  void admit(FileDescriptor socket) {
    auto credentials = hub_.settings().credentials(socket.get());
    if (!credentials || !handler_) return;
    next_.peer = std::move(socket);
    const auto connection = LinuxServiceConnection::create(
        hub_.shared_from_this(), std::exchange(next_, {}), std::move(*credentials));
    if (!hub_.add(connection)) return;
    const AcceptHandler handler = handler_;  // it may close us
    if (!handler(connection)) connection->end();
  }

  ServiceHub& hub_;  // outlives what runs on its thread
  AcceptHandler handler_;
  std::optional<Waits> waits_;
  ChannelSockets next_;  // what the next peer will need
};

LinuxServiceListener::LinuxServiceListener(std::shared_ptr<ServiceHub> hub, std::string serviceName,
                                           std::string path)
    : hub_(std::move(hub)),
      serviceName_(std::move(serviceName)),
      path_(std::move(path)),
      acceptor_(std::make_shared<Acceptor>(*hub_)) {}

LinuxServiceListener::~LinuxServiceListener() {
  hub_->thread().runAndWait([acceptor = acceptor_] { acceptor->close(); });
}

void LinuxServiceListener::setAcceptHandler(AcceptHandler handler) {
  acceptor_->setHandler(std::move(handler));
}

bool LinuxServiceListener::resume(QSError* error) {
  QSError failure;
  FileDescriptor socket = takePassedSocket(serviceName_, &failure);
  if (!socket.valid() && !failure) socket = bindEndpointSocket(path_, &failure);
  if (!socket.valid() || !hub_->thread().start(&failure)) {
    setError(error, std::move(failure));
    return false;
  }
  hub_->thread().atStop([weak = std::weak_ptr(acceptor_)] {
    if (const auto acceptor = weak.lock()) acceptor->close();
  });
  int result = 0;
  hub_->thread().runAndWait([&] { result = acceptor_->open(std::move(socket)); });
  if (result != 0) setError(error, QSError::posix(result));
  return result == 0;
}

}  // namespace quillsift
