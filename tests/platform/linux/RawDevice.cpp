#include "tests/platform/linux/RawDevice.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace quillsift {

namespace {

constexpr const char* kPath = "/io/vantor/omnitrawl/remote";
constexpr const char* kService = "io.vantor.omnitrawl.remote";

std::uint32_t numberAt(const std::string& bytes, std::size_t offset) {
  std::uint32_t number = 0;
  std::memcpy(&number, bytes.data() + offset, sizeof number);
  return number;
}

}  // namespace

bool RawDevicePeer::fill() {
  std::array<char, 65536> room;
  const ssize_t count = ::recv(socket_.get(), room.data(), room.size(), 0);
  if (count > 0) received_.append(room.data(), static_cast<std::size_t>(count));
  return count > 0;
}

std::optional<std::string> RawDevicePeer::take(std::size_t count) {
  while (received_.size() < count) {
    if (!fill()) return std::nullopt;
  }
  std::string taken = received_.substr(0, count);
  received_.erase(0, count);
  return taken;
}

bool RawDevicePeer::shakeHands() {
  if (!take(1)) return false;
  for (;;) {
    std::size_t end = 0;
    while ((end = received_.find("\r\n")) == std::string::npos) {
      if (!fill()) return false;
    }
    const std::string line = received_.substr(0, end);
    received_.erase(0, end + 2);
    if (line == "BEGIN") return true;
    std::string answer = "OK 0123456789abcdef0123456789abcdef\r\n";
    if (line == "AUTH EXTERNAL") answer = "DATA\r\n";
    if (line == "NEGOTIATE_UNIX_FD") answer = "AGREE_UNIX_FD\r\n";
    if (!write(answer)) return false;
  }
}

bool RawDevicePeer::offer(bool yes) {
  const auto question = next();
  return question && answer(question->serial, "b", rawNumber(yes ? 1 : 0, 4));
}

std::optional<RawDevicePeer::Message> RawDevicePeer::next() {
  const auto head = take(16);
  if (!head) return std::nullopt;
  const std::size_t fields = (numberAt(*head, 12) + 7) / 8 * 8;
  auto header = take(fields);
  auto body = take(numberAt(*head, 4));
  if (!header || !body) return std::nullopt;
  return Message{.kind = static_cast<std::uint8_t>((*head)[1]),
                 .serial = numberAt(*head, 8),
                 .header = std::move(*header),
                 .body = std::move(*body)};
}

bool RawDevicePeer::write(const std::string& bytes, const std::vector<int>& descriptors) {
  std::vector<char> control(CMSG_SPACE(descriptors.size() * sizeof(int)));
  std::size_t written = 0;
  while (written < bytes.size()) {
    iovec piece{const_cast<char*>(bytes.data()) + written, bytes.size() - written};
    msghdr header{};
    header.msg_iov = &piece;
    header.msg_iovlen = 1;
    if (written == 0 && !descriptors.empty()) {
      header.msg_control = control.data();
      header.msg_controllen = control.size();
      cmsghdr* const part = CMSG_FIRSTHDR(&header);
      part->cmsg_level = SOL_SOCKET;
      part->cmsg_type = SCM_RIGHTS;
      part->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
      std::memcpy(CMSG_DATA(part), descriptors.data(), descriptors.size() * sizeof(int));
    }
    const ssize_t count = ::sendmsg(socket_.get(), &header, MSG_NOSIGNAL);
    if (count <= 0) return false;
    written += static_cast<std::size_t>(count);
  }
  return true;
}

bool RawDevicePeer::send(const std::string& body, const std::vector<int>& descriptors) {
  return write(RawBusMessage{.path = kPath,
                             .interface = kService,
                             .member = "Message",
                             .signature = "a{sv}",
                             .descriptors = static_cast<std::uint32_t>(descriptors.size()),
                             .body = body}
                   .bytes(),
               descriptors);
}

bool RawDevicePeer::answer(std::uint32_t serial, const std::string& signature,
                           const std::string& body) {
  return write(RawBusMessage{
      .kind = RawBusMessage::answer, .answered = serial, .signature = signature, .body = body}
                   .bytes());
}

bool RawDevicePeer::isReadWithin(std::chrono::milliseconds limit) const {
  pollfd descriptor{.fd = socket_.get(), .events = POLLOUT, .revents = 0};
  return ::poll(&descriptor, 1, static_cast<int>(limit.count())) > 0;
}

void RawDevicePeer::waitForTheEnd() {
  while (fill())
    received_.clear();
}

void RawDevicePeer::hangUp() const {
  (void)::shutdown(socket_.get(), SHUT_RDWR);
}

RawDevice::RawDevice(const std::string& path, Behaviour behaviour)
    : behaviour_(std::move(behaviour)),
      listener_(bindDeviceSocket(path)),
      acceptor_([this] { accept(); }) {}

RawDevice::~RawDevice() {
  (void)::shutdown(listener_.get(), SHUT_RDWR);
  acceptor_.join();
  for (const auto& peer : peers_)
    peer->hangUp();
  for (std::thread& thread : threads_)
    thread.join();
}

std::size_t RawDevice::connections() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return peers_.size();
}

void RawDevice::accept() {
  for (;;) {
    FileDescriptor socket(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!socket.valid()) return;
    const auto peer = std::make_shared<RawDevicePeer>(std::move(socket));
    const std::lock_guard<std::mutex> lock(mutex_);
    peers_.push_back(peer);
    threads_.emplace_back([this, peer] {
      behaviour_(*peer);
      peer->hangUp();
    });
  }
}

FileDescriptor bindDeviceSocket(const std::string& path, bool listening) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  EXPECT_LT(path.size(), sizeof address.sun_path);
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
      << std::strerror(errno);
  if (listening) {
    EXPECT_EQ(::listen(socket.get(), 8), 0);
  }
  return socket;
}

}  // namespace quillsift
