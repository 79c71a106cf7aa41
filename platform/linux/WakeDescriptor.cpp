#include "platform/linux/WakeDescriptor.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace quillsift {

WakeDescriptor::WakeDescriptor() : descriptor_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

// It fails only when the counter is full, and then it is set.
void WakeDescriptor::wake() const {
  const std::uint64_t one = 1;
  const int before = errno;
  while (::write(get(), &one, sizeof one) < 0 && errno == EINTR) {
  }
  errno = before;
}

void WakeDescriptor::clear() const {
  std::uint64_t count = 0;
  while (::read(get(), &count, sizeof count) < 0 && errno == EINTR) {
  }
}

int waitUnlessWoken(int descriptor, short events, const WakeDescriptor& wake) {
  pollfd descriptors[] = {
      {.fd = descriptor, .events = events, .revents = 0},
      {.fd = wake.get(), .events = POLLIN, .revents = 0},
  };
  while (::poll(descriptors, 2, -1) < 0) {
    if (errno != EINTR) return errno;
  }
  return descriptors[1].revents != 0 ? ECANCELED : 0;
}

}  // namespace quillsift
