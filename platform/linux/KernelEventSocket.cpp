#include "platform/linux/KernelEventSocket.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <system_error>

namespace quillsift {

namespace {

constexpr std::uint32_t kKernelGroup = 1;
constexpr std::uint32_t kNoAuditIdentity = 0xFFFFFFFF;
constexpr int kRoomForBurst = 4 << 20;

void growBuffer(int socket) {
  // Beyond the system's limit where we may; a smaller one only loses more of a burst.
  if (::setsockopt(socket, SOL_SOCKET, SO_RCVBUFFORCE, &kRoomForBurst, sizeof(int)) != 0) {
    (void)::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &kRoomForBurst, sizeof(int));
  }
}

std::optional<ucred> credentialsOf(msghdr* header) {
  for (cmsghdr* part = CMSG_FIRSTHDR(header); part != nullptr; part = CMSG_NXTHDR(header, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_CREDENTIALS) continue;
    ucred credentials{};
    std::memcpy(&credentials, CMSG_DATA(part), sizeof(credentials));
    return credentials;
  }
  return std::nullopt;
}

// The kernel stamps both: the port that an event came from and the process that sent it. Only its
// own are zero in both.
AuditToken senderOf(const sockaddr_nl& address, const std::optional<ucred>& credentials) {
  const bool ofKernel = address.nl_family == AF_NETLINK && address.nl_pid == 0 &&
                        address.nl_groups == kKernelGroup && credentials && credentials->pid == 0;
  if (ofKernel) return {};
  const ucred sender = credentials.value_or(ucred{});
  return foreignToken(static_cast<std::uint32_t>(sender.pid), sender.uid, sender.gid);
}

}  // namespace

FileDescriptor openKernelEvents() {
  FileDescriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT));
  if (!socket.valid() || !prepareKernelEvents(socket.get())) return {};
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = kKernelGroup;
  if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    return {};
  }
  return socket;
}

bool prepareKernelEvents(int socket) {
  const int on = 1;
  if (::setsockopt(socket, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0) return false;
  growBuffer(socket);
  const int flags = ::fcntl(socket, F_GETFL);
  return flags >= 0 && ::fcntl(socket, F_SETFL, flags | O_NONBLOCK) == 0;
}

AuditToken foreignToken(std::uint32_t process, std::uint32_t user, std::uint32_t group) {
  return {kNoAuditIdentity, user, group, user, group, process, 0, 0};
}

std::optional<KernelEventReader::Event> KernelEventReader::next(int socket) {
  for (;;) {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
    sockaddr_nl address{};
    iovec room{buffer_.data(), buffer_.size()};
    msghdr header{};
    header.msg_name = &address;
    header.msg_namelen = sizeof(address);
    header.msg_iov = &room;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof(control);
    const ssize_t length = ::recvmsg(socket, &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (length < 0 && (errno == EINTR || errno == ENOBUFS)) continue;
    if (length <= 0) return std::nullopt;
    if ((header.msg_flags & MSG_TRUNC) != 0) continue;
    return Event{.text = {buffer_.data(), static_cast<std::size_t>(length)},
                 .sender = senderOf(address, credentialsOf(&header))};
  }
}

std::optional<std::string_view> valueInEvent(std::string_view text, std::string_view name) {
  for (std::size_t end = text.find('\0'); end != std::string_view::npos; end = text.find('\0')) {
    text.remove_prefix(end + 1);
    if (!text.starts_with(name) || text.size() <= name.size() || text[name.size()] != '=') continue;
    text.remove_prefix(name.size() + 1);
    return text.substr(0, text.find('\0'));
  }
  return std::nullopt;
}

std::optional<std::int32_t> eventCodeIn(std::string_view text) {
  if (text.find("QSEVENT=") == std::string_view::npos) return std::nullopt;
  auto value = valueInEvent(text, "SYNTH_ARG_QSEVENT");
  if (!value) value = valueInEvent(text, "QSEVENT");
  if (!value) return std::nullopt;
  std::int32_t code = 0;
  const auto [end, failure] = std::from_chars(value->data(), value->data() + value->size(), code);
  if (failure != std::errc() || end != value->data() + value->size()) return std::nullopt;
  return code;
}

}  // namespace quillsift
