#include "platform/linux/LinuxSystemConsole.h"

#include <fcntl.h>
#include <unistd.h>

#include <utility>

namespace quillsift {

LinuxSystemConsole::LinuxSystemConsole(std::shared_ptr<const PlatformTree> tree)
    : tree_(std::move(tree)) {}

void LinuxSystemConsole::write(std::string_view bytes) {
  std::call_once(opened_, [this] { open(); });
  if (!console_.valid()) return;
  // Whether the console takes it is nobody's concern: the system log has the message.
  [[maybe_unused]] const ssize_t count = ::write(console_.get(), bytes.data(), bytes.size());
}

void LinuxSystemConsole::open() {
  const auto path = tree_->resolve("/dev/console");
  if (!path) return;
  // Without waiting, for a carrier or for a terminal whose output is stopped: whoever logs may hold
  // locks.
  console_.reset(::open(path->c_str(), O_WRONLY | O_APPEND | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
}

}  // namespace quillsift
