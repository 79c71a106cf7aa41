#include "tests/platform/linux/RawPeer.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace quillsift::testing {

namespace {

constexpr std::chrono::seconds kLimit{60};

void appendNumber(std::string& bytes, std::uint32_t number) {
  for (int i = 0; i < 4; ++i)
    bytes.push_back(static_cast<char>(number >> (8 * i)));
}

void align(std::string& bytes, std::size_t boundary) {
  bytes.append((boundary - bytes.size() % boundary) % boundary, '\0');
}

// One header field whose value is a string or an object path.
void appendField(std::string& bytes, char code, char type, const std::string& value) {
  align(bytes, 8);
  bytes += {code, 1, type, 0};
  appendNumber(bytes, static_cast<std::uint32_t>(value.size()));
  bytes += value + '\0';
}

}  // namespace

RawPeer::RawPeer(const std::string& socketPath)
    : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  socketPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
  if (::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    socket_.reset();
  }
}

bool RawPeer::write(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

std::size_t RawPeer::writeWhatFits(std::string_view bytes) {
  std::size_t total = 0;
  while (total < bytes.size()) {
    const ssize_t written = ::send(socket_.get(), bytes.data() + total, bytes.size() - total,
                                   MSG_NOSIGNAL | MSG_DONTWAIT);
    if (written <= 0) break;
    total += static_cast<std::size_t>(written);
  }
  return total;
}

bool RawPeer::authenticate() {
  std::string identity;
  for (const char digit : std::to_string(::geteuid())) {
    identity += {'3', digit};  // '0' is 0x30
  }
  return write(std::string(1, '\0') + "AUTH EXTERNAL " + identity + "\r\n") &&
         readUntil("\r\n").starts_with("OK ") && write("BEGIN\r\n");
}

bool RawPeer::readable(std::chrono::milliseconds limit) {
  pollfd state{.fd = socket_.get(), .events = POLLIN, .revents = 0};
  return ::poll(&state, 1, static_cast<int>(limit.count())) > 0;
}

std::string RawPeer::readUntil(std::string_view marker) {
  std::string bytes;
  while (!bytes.ends_with(marker) && readable(kLimit)) {
    char byte = 0;
    if (::recv(socket_.get(), &byte, 1, 0) != 1) break;
    bytes.push_back(byte);
  }
  return bytes;
}

std::string RawPeer::readBytes(std::size_t count) {
  std::string bytes(count, '\0');
  std::size_t total = 0;
  while (total < count && readable(kLimit)) {
    const ssize_t length = ::recv(socket_.get(), bytes.data() + total, count - total, 0);
    if (length <= 0) break;
    total += static_cast<std::size_t>(length);
  }
  bytes.resize(total);
  return bytes;
}

bool RawPeer::readToTheEnd(std::string* bytes) {
  char buffer[65536];
  while (readable(kLimit)) {
    const ssize_t length = ::recv(socket_.get(), buffer, sizeof(buffer), 0);
    if (length <= 0) return true;  // closed, or reset
    if (bytes != nullptr) bytes->append(buffer, static_cast<std::size_t>(length));
  }
  return false;
}

std::string RawCall::bytes() const {
  std::string fields;
  // The array of fields begins at a multiple of eight, so they are aligned from its own start.
  appendField(fields, 1, 'o', path);
  appendField(fields, 2, 's', interface);
  appendField(fields, 3, 's', member);
  if (!signature.empty()) {
    align(fields, 8);
    fields += {8, 1, 'g', 0, static_cast<char>(signature.size())};
    fields += signature + '\0';
  }
  std::string message = {'l', 1, static_cast<char>(noReply ? 1 : 0), 1};
  appendNumber(message, static_cast<std::uint32_t>(body.size()));
  appendNumber(message, serial);
  appendNumber(message, static_cast<std::uint32_t>(fields.size()));
  message += fields;
  align(message, 8);
  return message + body;
}

std::string rawString(std::string_view text) {
  std::string bytes;
  appendNumber(bytes, static_cast<std::uint32_t>(text.size()));
  bytes += text;
  bytes.push_back('\0');
  return bytes;
}

}  // namespace quillsift::testing
