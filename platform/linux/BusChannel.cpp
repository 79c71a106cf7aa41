#include "platform/linux/BusChannel.h"

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <poll.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace quillsift {

namespace {

// Messages read or written in one turn, so that one busy peer does not keep the others waiting.
constexpr int kStepsPerTurn = 64;
// Bytes taken from a peer at once.
constexpr std::size_t kReadBytes = std::size_t{8} << 10;
// What the kernel keeps for a peer that does not read. The library asks for much more, which would
// stand outside every bound of ours.
constexpr int kSendBufferBytes = 128 << 10;

bool isHangUp(int result) {
  return result == -ECONNRESET || result == -EPIPE || result == -ENOTCONN || result == -ESHUTDOWN;
}

}  // namespace

bool ChannelSockets::makePair() {
  int ends[2] = {-1, -1};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) return false;
  feed = FileDescriptor(ends[0]);
  library = FileDescriptor(ends[1]);
  return true;
}

struct BusChannel::Waits {
  explicit Waits(asio::io_context& context) : descriptor(context), handshake(context) {}

  asio::posix::stream_descriptor descriptor;  // the bus's descriptor, given back before it closes
  asio::steady_timer handshake;
  bool reading = false;
  bool writing = false;
};

BusChannel::BusChannel(asio::io_context& context, const Limits& limits, uid_t peer,
                       std::shared_ptr<BusChannelOwner> owner)
    : context_(context),
      limits_(limits),
      owner_(std::move(owner)),
      handshake_(peer),
      incoming_(PeerHandshake::kMaximumLine, limits.messageBytes) {}

BusChannel::~BusChannel() {
  close();
}

void BusChannel::open(ChannelSockets sockets) {
  const auto self = shared_from_this();  // the owner drops a channel that has ended
  const int result = start(std::move(sockets));
  if (result < 0) {
    fail(result);
    return;
  }
  limitHandshake();
  pump();
}

int BusChannel::setUpBus(ChannelSockets* sockets) {
  sd_bus* bus = nullptr;
  int result = sd_bus_new(&bus);
  if (result < 0) return result;
  bus_.reset(bus);
  sd_id128_t identifier{};
  result = sd_id128_randomize(&identifier);
  if (result >= 0) result = sd_bus_set_server(bus, 1, identifier);
  // Who the peer is has been read from its own socket, and the handshake is held against that. The
  // library would look at the socket that it reads from, and then ask for capabilities.
  if (result >= 0) result = sd_bus_set_anonymous(bus, 1);
  if (result >= 0) result = sd_bus_set_trusted(bus, 1);
  if (result >= 0) result = sd_bus_negotiate_fds(bus, 0);
  if (result >= 0) result = owner_->exportObjects(bus);
  if (result >= 0) {
    result = sd_bus_add_filter(
        bus, nullptr,
        [](sd_bus_message*, void* channel, sd_bus_error*) {
          ++static_cast<BusChannel*>(channel)->seen_;
          return 0;
        },
        this);
  }
  if (result >= 0) result = sd_bus_set_fd(bus, sockets->library.get(), sockets->peer.get());
  if (result < 0) return result;
  (void)sockets->library.release();
  socket_ = sockets->peer.release();
  return 0;
}

int BusChannel::start(ChannelSockets sockets) {
  int result = setUpBus(&sockets);
  if (result < 0) return result;
  feed_ = std::move(sockets.feed);
  waits_ = std::make_unique<Waits>(context_);
  asio::error_code failure;
  waits_->descriptor.assign(socket_, failure);
  if (failure) return -failure.value();
  result = sd_bus_start(bus_.get());
  if (result < 0) return result;
  const int bytes = kSendBufferBytes;
  if (::setsockopt(socket_, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes)) != 0) return -errno;
  // The peer's own NUL is taken off its first line.
  return ::send(feed_.get(), "", 1, MSG_NOSIGNAL) == 1 ? 0 : -errno;
}

void BusChannel::limitHandshake() {
  waits_->handshake.expires_after(limits_.handshake);
  waits_->handshake.async_wait([self = shared_from_this()](const asio::error_code& cancelled) {
    if (!cancelled && !self->ready_) self->finish(false);
  });
}

void BusChannel::pump() {
  const auto self = shared_from_this();  // the owner drops a channel that has ended
  for (int steps = 0; bus_ && steps < kStepsPerTurn; ++steps) {
    if (step()) continue;
    if (bus_) waitForSocket();
    return;
  }
  if (bus_) asio::post(context_, [self] { self->pump(); });
}

// One message in or out. False when nothing more can be done now.
bool BusChannel::step() {
  // Reading goes first: a peer may say something and close at once, and then a write would fail and
  // take what it said with it.
  if (mayRead() && read()) return true;
  return bus_ && write();
}

// The next piece that is here, else more bytes.
bool BusChannel::read() {
  std::string_view piece;
  const auto cut = ready_ ? incoming_.nextMessage(&piece) : incoming_.nextLine(&piece);
  switch (cut) {
    case IncomingBytes::Cut::piece:
      return ready_ ? dispatch(piece) : shakeHands(piece);
    case IncomingBytes::Cut::incomplete:
      return receive();
    case IncomingBytes::Cut::malformed:
    case IncomingBytes::Cut::tooLong:
      break;
  }
  return finish(true);
}

bool BusChannel::receive() {
  char bytes[kReadBytes];
  ssize_t length = 0;
  do {
    length = ::recv(socket_, bytes, sizeof(bytes), MSG_DONTWAIT);
  } while (length < 0 && errno == EINTR);
  if (length > 0) {
    incoming_.append({bytes, static_cast<std::size_t>(length)});
    return true;
  }
  if (length < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return false;
  return finish(length < 0 || !incoming_.empty());
}

bool BusChannel::shakeHands(std::string_view line) {
  switch (handshake_.next(&line)) {
    case PeerHandshake::Verdict::forward:
      return passToLibrary(line);
    case PeerHandshake::Verdict::reject: {
      const auto rejection = PeerHandshake::kRejection;
      const ssize_t sent =
          ::send(socket_, rejection.data(), rejection.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
      return sent == static_cast<ssize_t>(rejection.size()) || finish(true);
    }
    case PeerHandshake::Verdict::last:
      if (!passToLibrary(line)) return false;
      // It is not when the peer has not said who it is.
      if (sd_bus_is_ready(bus_.get()) <= 0) return finish(true);
      ready_ = true;
      waits_->handshake.cancel();
      return true;
    case PeerHandshake::Verdict::giveUp:
      break;
  }
  return finish(true);
}

bool BusChannel::dispatch(std::string_view message) {
  seen_ = 0;
  if (!passToLibrary(message)) return false;
  // What the library does not take for a message, it drops.
  return seen_ == 1 || finish(true);
}

// Puts bytes where the library reads, and lets it have them all.
bool BusChannel::passToLibrary(std::string_view bytes) {
  for (;;) {
    const ssize_t sent =
        bytes.empty() ? 0 : ::send(feed_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent > 0) bytes.remove_prefix(static_cast<std::size_t>(sent));
    if (sent < 0 && errno != EAGAIN && errno != EINTR) return fail(-errno);
    const int result = process();
    if (result < 0) return fail(result);
    if (result == 0 && bytes.empty()) return true;
  }
}

bool BusChannel::write() {
  if (!ready_) return false;
  if (queuedAnswers() > 0) {
    if (!std::exchange(writable_, false)) return false;
    const int result = process();
    return result >= 0 || fail(result);
  }
  // Nobody reads it any more, but what the peer has said before is still to be carried out.
  if (hasHungUp()) return mayRead();
  switch (owner_->feed(bus_.get())) {
    case BusChannelOwner::Fed::message:
      return true;
    case BusChannelOwner::Fed::refused:
      return fail(-EPIPE);
    case BusChannelOwner::Fed::nothing:
      break;
  }
  return false;
}

bool BusChannel::hasHungUp() const {
  pollfd peer{.fd = socket_, .events = 0, .revents = 0};
  return ::poll(&peer, 1, 0) > 0 && (peer.revents & POLLHUP) != 0;
}

bool BusChannel::mayRead() const {
  return !ready_ || (queuedAnswers() <= limits_.queuedAnswers && owner_->mayRead());
}

std::uint64_t BusChannel::queuedAnswers() const {
  std::uint64_t messages = 0;
  return sd_bus_get_n_queued_write(bus_.get(), &messages) >= 0 ? messages : 0;
}

void BusChannel::waitForSocket() {
  using Descriptor = asio::posix::stream_descriptor;
  // One wait for each direction at most.
  if (mayRead() && !std::exchange(waits_->reading, true)) {
    waits_->descriptor.async_wait(Descriptor::wait_read,
                                  [self = shared_from_this()](const asio::error_code&) {
                                    if (!self->bus_) return;
                                    self->waits_->reading = false;
                                    self->pump();
                                  });
  }
  if (queuedAnswers() > 0 && !std::exchange(waits_->writing, true)) {
    waits_->descriptor.async_wait(Descriptor::wait_write,
                                  [self = shared_from_this()](const asio::error_code&) {
                                    if (!self->bus_) return;
                                    self->waits_->writing = false;
                                    self->writable_ = true;
                                    self->pump();
                                  });
  }
}

// One step of the library: 0 when it has nothing to do, negative when it is at its end.
int BusChannel::process() {
  const int result = sd_bus_process(bus_.get(), nullptr);
  if (result >= 0 && sd_bus_is_open(bus_.get()) <= 0) return -EPIPE;
  return result;
}

// A peer that closes while something is written to it does so in good order, unless it was in the
// middle of saying something.
bool BusChannel::fail(int result) {
  return finish(!isHangUp(result) || !incoming_.empty());
}

// False, for those who say by it that there is nothing more to do.
bool BusChannel::finish(bool interrupted) {
  const auto owner = owner_;
  close();
  if (owner) owner->channelEnded(interrupted);
  return false;
}

void BusChannel::close() {
  if (waits_) {
    // Given back before the bus closes it: the number may belong to somebody else right after.
    if (waits_->descriptor.is_open()) (void)waits_->descriptor.release();
    waits_.reset();
  }
  bus_.reset();
  feed_.reset();
  socket_ = -1;
  owner_.reset();
}

}  // namespace quillsift
