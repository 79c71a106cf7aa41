#include "platform/linux/LinuxKernelMessages.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>

#include <cerrno>
#include <utility>

#include "platform/Text.h"
#include "platform/linux/EndpointSocket.h"
#include "platform/linux/KernelEventSocket.h"
#include "platform/linux/LinuxKernelPort.h"

namespace quillsift {

namespace {

// The functions below return 0 or an errno value.

int adopt(FileDescriptor passed, KernelPortSockets* sockets) {
  const int descriptor = passed.get();
  if (!sockets->events.valid() && sd_is_socket(descriptor, AF_NETLINK, 0, -1) > 0) {
    sockets->events = std::move(passed);
    return prepareKernelEvents(descriptor) ? 0 : errno;
  }
  if (!sockets->listener.valid() &&
      sd_is_socket_unix(descriptor, SOCK_SEQPACKET, 1, nullptr, 0) > 0) {
    sockets->listener = std::move(passed);
    const int flags = ::fcntl(descriptor, F_GETFL);
    return flags >= 0 && ::fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) == 0 ? 0 : errno;
  }
  return EPROTOTYPE;
}

int openMissing(const std::string& path, KernelPortSockets* sockets) {
  if (!sockets->events.valid()) sockets->events = openKernelEvents();
  if (!sockets->events.valid()) return errno;
  if (sockets->listener.valid()) return 0;
  QSError error;
  sockets->listener = bindEndpointSocket(path, &error, SOCK_SEQPACKET);
  return static_cast<int>(error.code);
}

}  // namespace

LinuxKernelMessages::LinuxKernelMessages(std::string socketDirectory)
    : socketDirectory_(std::move(socketDirectory)) {}

std::unique_ptr<KernelPort> LinuxKernelMessages::checkIn(const std::string& portName, int* code) {
  KernelPortSockets sockets;
  *code = 0;
  for (FileDescriptor& passed : takePassedDescriptors(portName)) {
    if (*code == 0) *code = adopt(std::move(passed), &sockets);
  }
  if (*code == 0) *code = openMissing(joinedPath(socketDirectory_, portName), &sockets);
  if (*code != 0) return nullptr;
  return std::make_unique<LinuxKernelPort>(std::move(sockets));
}

}  // namespace quillsift
