#include "tests/platform/linux/PrivateEvents.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>
#include <utility>

#include "platform/linux/KernelEventSocket.h"

namespace quillsift {

namespace {

// A network of other users: the kernel tells it of no device of this machine. Only a process with
// one thread can have users of its own made. Invalid where that is not allowed.
FileDescriptor networkOfOtherUsers() {
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) return {};
  const FileDescriptor made(ends[0]);
  FileDescriptor making(ends[1]);
  const pid_t child = ::fork();
  if (child == 0) {
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0 || ::write(ends[1], "x", 1) != 1) ::_exit(1);
    for (;;)
      ::pause();
  }
  making.reset();
  char byte = 0;
  FileDescriptor network;
  if (child > 0 && ::read(made.get(), &byte, 1) == 1) {
    const std::string path = "/proc/" + std::to_string(child) + "/ns/net";
    network.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  }
  if (child > 0) {
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
  }
  return network;
}

}  // namespace

std::optional<PrivateEvents> PrivateEvents::make() {
  PrivateEvents events;
  const FileDescriptor network = networkOfOtherUsers();
  // The network is that of the thread alone; sockets keep the one they were made in.
  std::thread([&] {
    const int entered =
        network.valid() ? ::setns(network.get(), CLONE_NEWNET) : ::unshare(CLONE_NEWNET);
    if (entered != 0) return;
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
