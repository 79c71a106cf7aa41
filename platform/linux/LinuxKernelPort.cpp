#include "platform/linux/LinuxKernelPort.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/linux/KernelEventSocket.h"
#include "platform/linux/PeerCredentials.h"
#include "platform/linux/WakeDescriptor.h"

namespace quillsift {

namespace {

constexpr std::size_t kMostPeers = 32;  // one more is hung up on
// Read in one turn, so that neither source keeps the other waiting.
constexpr int kEventsPerTurn = 256;
constexpr int kAcceptsPerTurn = 16;
// How long nobody is accepted after the system had no descriptor for a peer.
constexpr int kAcceptPauseMilliseconds = 100;

// Counts the messages of one source: one that is handled and `limit` that wait.
class WaitingRoom {
 public:
  void setLimit(std::size_t limit) { places_ = limit + 1; }
  bool isFull() const { return taken_ >= places_; }
  void enter() { ++taken_; }
  void leave() { --taken_; }

 private:
  std::size_t places_ = 0;
  std::atomic<std::size_t> taken_{0};
};

struct Peer {
  FileDescriptor socket;
  AuditToken token{};
  std::atomic<bool> answering{false};  // one request of a peer at a time
};

// What was sent, of too much only a byte more than a request has. None when nothing can be read;
// empty at the end of the connection.
std::optional<std::vector<std::uint8_t>> readRequest(int socket) {
  std::vector<std::uint8_t> request(kernelmessage::kLength + 1);
  const ssize_t length = ::recv(socket, request.data(), request.size(), MSG_DONTWAIT);
  if (length < 0 && (errno == EAGAIN || errno == EINTR)) return std::nullopt;
  request.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return request;
}

}  // namespace

// What the thread and the tasks share. Tasks may outlive the port.
class LinuxKernelPort::Receiver : public std::enable_shared_from_this<Receiver> {
 public:
  Receiver(KernelPortSockets sockets, WakeDescriptor wakeUp, std::size_t queueLimit,
           std::shared_ptr<SerialQueue> queue, Handler handler)
      : sockets_(std::move(sockets)),
        wakeUp_(std::move(wakeUp)),
        queue_(std::move(queue)),
        handler_(std::move(handler)) {
    kernelMessages_.setLimit(queueLimit);
    localMessages_.setLimit(queueLimit);
  }

  void run() {
    while (!stopped_) {
      waitForSomething();
      if (stopped_) break;
      readEvents();
      acceptPeers();
      readPeers();
    }
    peers_.clear();
  }

  void stop() {
    stopped_ = true;
    wakeUp_.wake();
  }

 private:
  void waitForSomething() {
    std::vector<pollfd> waits = {{wakeUp_.get(), POLLIN, 0}, {sockets_.events.get(), POLLIN, 0}};
    if (!pausing_) waits.push_back({sockets_.listener.get(), POLLIN, 0});
    if (!localMessages_.isFull()) {
      for (const auto& peer : peers_) {
        if (!peer->answering) waits.push_back({peer->socket.get(), POLLIN, 0});
      }
    }
    (void)::poll(waits.data(), waits.size(), pausing_ ? kAcceptPauseMilliseconds : -1);
    pausing_ = false;
    wakeUp_.clear();
  }

  void readEvents() {
    for (int i = 0; i < kEventsPerTurn; ++i) {
      const auto event = reader_.next(sockets_.events.get());
      if (!event) return;
      const auto code = eventCodeIn(event->text);
      if (code && !kernelMessages_.isFull()) submitEvent(*code, event->sender);
    }
  }

  void submitEvent(std::int32_t code, const AuditToken& sender) {
    kernelMessages_.enter();
    queue_->async([self = shared_from_this(), code, sender] {
      (void)self->handler_({.request = makeKernelRequest(kernelmessage::kEventIdentifier, code),
                            .trailer = makeKernelTrailer(sender)});
      self->kernelMessages_.leave();
    });
  }

  void acceptPeers() {
    // No more in a turn, so that a crowd at the door does not keep the kernel waiting.
    for (int i = 0; i < kAcceptsPerTurn; ++i) {
      FileDescriptor socket(
          ::accept4(sockets_.listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (!socket.valid()) {
        pausing_ = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
        return;
      }
      const auto credentials = readPeerCredentials(socket.get());
      if (!credentials || peers_.size() >= kMostPeers) continue;
      auto peer = std::make_shared<Peer>();
      peer->socket = std::move(socket);
      peer->token = foreignToken(static_cast<std::uint32_t>(credentials->processIdentifier),
                                 credentials->userIdentifier, credentials->groupIdentifier);
      peers_.push_back(std::move(peer));
    }
  }

  void readPeers() {
    // Each goes to the end of the line, so that a busy one does not keep the others waiting.
    for (std::size_t left = peers_.size(); left > 0 && !localMessages_.isFull(); --left) {
      const auto peer = std::move(peers_.front());
      peers_.pop_front();
      auto request = peer->answering ? std::nullopt : readRequest(peer->socket.get());
      if (request && request->empty()) continue;
      if (request) submitRequest(peer, std::move(*request));
      peers_.push_back(peer);
    }
  }

  void submitRequest(const std::shared_ptr<Peer>& peer, std::vector<std::uint8_t> request) {
    localMessages_.enter();
    peer->answering = true;
    queue_->async([self = shared_from_this(), peer, request = std::move(request)]() mutable {
      const KernelReply reply = self->handler_(
          {.request = std::move(request), .trailer = makeKernelTrailer(peer->token)});
      // A sender that does not read its replies loses them.
      (void)::send(peer->socket.get(), reply.data(), reply.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
      peer->answering = false;
      self->localMessages_.leave();
      self->wakeUp_.wake();
    });
  }

  const KernelPortSockets sockets_;
  const WakeDescriptor wakeUp_;
  const std::shared_ptr<SerialQueue> queue_;
  const Handler handler_;
  std::atomic<bool> stopped_{false};
  WaitingRoom kernelMessages_;
  WaitingRoom localMessages_;
  // The thread's own.
  KernelEventReader reader_;
  std::deque<std::shared_ptr<Peer>> peers_;
  bool pausing_ = false;
};

LinuxKernelPort::LinuxKernelPort(KernelPortSockets sockets) : sockets_(std::move(sockets)) {}

LinuxKernelPort::~LinuxKernelPort() {
  if (!receiver_) return;
  receiver_->stop();
  thread_.join();
}

int LinuxKernelPort::setQueueLimit(std::size_t messages) {
  queueLimit_ = messages;
  return 0;
}

int LinuxKernelPort::resume(std::shared_ptr<SerialQueue> queue, Handler handler) {
  WakeDescriptor wakeUp;
  if (!wakeUp.valid()) return errno;
  const auto receiver = std::make_shared<Receiver>(
      std::move(sockets_), std::move(wakeUp), queueLimit_, std::move(queue), std::move(handler));
  try {
    thread_ = std::thread([receiver] { receiver->run(); });
  } catch (const std::system_error& failure) {
    return failure.code().value();
  }
  receiver_ = receiver;
  return 0;
}

}  // namespace quillsift
