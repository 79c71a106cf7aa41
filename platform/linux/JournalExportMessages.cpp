#include "platform/linux/JournalExportMessages.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

namespace quillsift {

namespace {

using Kind = JournalExportMessage::Kind;

// Room for one descriptor beside a packet, as the kernel wants it aligned.
union DescriptorRoom {
  cmsghdr header;
  std::array<char, CMSG_SPACE(sizeof(int))> bytes;
};

// The first byte of a packet: control characters that no library prints.
char markOf(Kind kind) {
  switch (kind) {
    case Kind::member:
      return '\x01';
    case Kind::warning:
      return '\x02';
    case Kind::end:
      return '\x03';
    case Kind::other:
      break;
  }
  return '\x04';
}

Kind kindOf(char mark) {
  for (const Kind kind : {Kind::member, Kind::warning, Kind::end}) {
    if (markOf(kind) == mark) return kind;
  }
  return Kind::other;
}

FileDescriptor descriptorIn(msghdr* packet) {
  FileDescriptor descriptor;
  for (cmsghdr* part = CMSG_FIRSTHDR(packet); part != nullptr; part = CMSG_NXTHDR(packet, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
    int received = -1;
    std::memcpy(&received, CMSG_DATA(part), sizeof received);
    descriptor.reset(received);
  }
  return descriptor;
}

}  // namespace

int sendJournalExportMessage(int socket, const JournalExportMessage& message) {
  std::string bytes(1, markOf(message.kind));
  bytes += std::string_view(message.text).substr(0, kMostJournalExportText);
  iovec part{.iov_base = bytes.data(), .iov_len = bytes.size()};
  msghdr packet{};
  packet.msg_iov = &part;
  packet.msg_iovlen = 1;
  DescriptorRoom room{};
  if (message.descriptor.valid()) {
    packet.msg_control = &room;
    packet.msg_controllen = sizeof room;
    cmsghdr* const header = CMSG_FIRSTHDR(&packet);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    const int descriptor = message.descriptor.get();
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
  }
  ssize_t count = -1;
  do {
    count = ::sendmsg(socket, &packet, MSG_NOSIGNAL);
  } while (count < 0 && errno == EINTR);
  return count < 0 ? errno : 0;
}

std::optional<JournalExportMessage> receiveJournalExportMessage(int socket) {
  std::string bytes(1 + kMostJournalExportText, '\0');
  iovec part{.iov_base = bytes.data(), .iov_len = bytes.size()};
  DescriptorRoom room{};
  msghdr packet{};
  packet.msg_iov = &part;
  packet.msg_iovlen = 1;
  packet.msg_control = &room;
  packet.msg_controllen = sizeof room;
  ssize_t count = -1;
  do {
    count = ::recvmsg(socket, &packet, MSG_CMSG_CLOEXEC);
  } while (count < 0 && errno == EINTR);
  if (count < 0) return std::nullopt;
  errno = 0;
  if (count == 0) return std::nullopt;

  JournalExportMessage message;
  message.descriptor = descriptorIn(&packet);
  if ((packet.msg_flags & MSG_CTRUNC) != 0) {
    errno = EMFILE;
    return std::nullopt;
  }
  bytes.resize(static_cast<std::size_t>(count));
  message.kind = kindOf(bytes[0]);
  message.text = message.kind == Kind::other ? std::move(bytes) : bytes.substr(1);
  return message;
}

}  // namespace quillsift
