#include "tests/platform/linux/PrivateEvents.h"

#include <linux/netlink.h>
#include <sched.h>
#include <sys/socket.h>

#include <thread>
#include <utility>

#include "platform/linux/KernelEventSocket.h"

namespace quillsift {

std::optional<PrivateEvents> PrivateEvents::make() {
  PrivateEvents events;
  // The network is that of the thread alone; sockets keep the one they were made in.
  std::thread([&events] {
    if (::unshare(CLONE_NEWNET) != 0) return;
    events.receiver = openKernelEvents();
    events.sender.reset(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT));
  }).join();
  const int small = 16384;
  if (!events.receiver.valid() || !events.sender.valid() ||
      ::setsockopt(events.receiver.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small) != 0) {
    return std::nullopt;
  }
  return events;
}

bool PrivateEvents::send(const std::string& code) const {
  using namespace std::literals;
  const std::string text = "change@/x\0SYNTH_ARG_QSEVENT="s + code + '\0';
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = 1;
  return ::sendto(sender.get(), text.data(), text.size(), 0,
                  reinterpret_cast<const sockaddr*>(&address),
                  sizeof address) == static_cast<ssize_t>(text.size());
}

}  // namespace quillsift
