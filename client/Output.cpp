#include "client/Output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace quillsift {

namespace {

void waitUntilWritable(int descriptor) {
  pollfd request{.fd = descriptor, .events = POLLOUT, .revents = 0};
  (void)::poll(&request, 1, -1);  // whatever it says, the next write tells more
}

}  // namespace

void Output::write(std::string_view text) {
  while (!text.empty() && error_ == 0) {
    const ssize_t written = ::write(descriptor_, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      waitUntilWritable(descriptor_);
    } else if (errno != EINTR) {
      error_ = errno;
    }
  }
}

}  // namespace quillsift
