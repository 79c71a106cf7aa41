#include "client/Interrupts.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

namespace quillsift {

namespace {

constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP};

volatile int wakeDescriptor = -1;

void wake(int) {
  const int before = errno;
  const char byte = 0;
  // The pipe cannot be full: each signal is taken over only once.
  const ssize_t ignored = ::write(wakeDescriptor, &byte, 1);
  (void)ignored;
  errno = before;
}

// Whether somebody who started us wants the signal to be without effect (nohup).
bool isIgnored(int signal) {
  struct sigaction action {};
  return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

int Interrupts::install(QSError* error) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
    setError(error, QSError::posix(errno));
    return -1;
  }
  wakeDescriptor = ends[1];

  struct sigaction action {};
  action.sa_handler = wake;
  action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
  for (const int signal : kSignals) {
    if (isIgnored(signal)) continue;
    if (::sigaction(signal, &action, nullptr) != 0) {
      setError(error, QSError::posix(errno));
      return -1;
    }
  }
  return ends[0];
}

}  // namespace quillsift
