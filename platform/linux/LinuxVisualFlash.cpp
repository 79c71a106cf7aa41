#include "platform/linux/LinuxVisualFlash.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <thread>
#include <utility>

namespace quillsift {

namespace {

// The terminal in the foreground when it is opened, also if another comes there later.
constexpr const char* kTerminal = "/dev/tty0";
constexpr std::string_view kInvert = "\x1b[?5h";
constexpr std::string_view kRestore = "\x1b[?5l";
// For a terminal whose output somebody has stopped.
constexpr int kWriteLimitMilliseconds = 100;
// A terminal must not stay inverted; nobody waits for the flash.
constexpr int kRestoreAttempts = 50;

bool send(int terminal, std::string_view sequence) {
  pollfd ready{terminal, POLLOUT, 0};
  int count = 0;
  do {
    count = ::poll(&ready, 1, kWriteLimitMilliseconds);
  } while (count < 0 && errno == EINTR);
  if (count != 1) return false;
  return ::write(terminal, sequence.data(), sequence.size()) ==
         static_cast<ssize_t>(sequence.size());
}

}  // namespace

LinuxVisualFlash::LinuxVisualFlash(std::shared_ptr<const PlatformTree> tree)
    : LinuxVisualFlash(std::move(tree), Timing()) {}

LinuxVisualFlash::LinuxVisualFlash(std::shared_ptr<const PlatformTree> tree, Timing timing)
    : tree_(std::move(tree)), timing_(timing) {}

void LinuxVisualFlash::flash() {
  const FileDescriptor terminal = openTerminal();
  if (terminal.valid()) (void)invertFor(terminal.get(), timing_.longFlash);
}

void LinuxVisualFlash::flash(const FlashParameters& parameters) {
  (void)parameters;
  const FileDescriptor terminal = openTerminal();
  if (!terminal.valid() || !invertFor(terminal.get(), timing_.shortFlash)) return;
  std::this_thread::sleep_for(timing_.shortFlash);
  (void)invertFor(terminal.get(), timing_.shortFlash);
}

FileDescriptor LinuxVisualFlash::openTerminal() const {
  const auto path = tree_->resolve(kTerminal);
  if (!path) return {};
  return FileDescriptor(::open(path->c_str(), O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
}

bool LinuxVisualFlash::invertFor(int terminal, std::chrono::milliseconds time) {
  if (!send(terminal, kInvert)) return false;
  std::this_thread::sleep_for(time);
  for (int i = 0; i < kRestoreAttempts; ++i) {
    if (send(terminal, kRestore)) return true;
  }
  return false;
}

}  // namespace quillsift
