#include "platform/linux/LinuxChildProcess.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <system_error>
#include <utility>

#include "platform/linux/OutputBuffer.h"

namespace quillsift {

namespace {

// A child that prints a lot gets a longer pipe, so that the two of us wait for each other less
// often. Still longer ones cost more: pipe and buffer no longer fit the processor's cache.
constexpr int kFloodPipeLength = 256 * 1024;
constexpr std::size_t kFloodLength = std::size_t{64} * 1024;

[[noreturn]] void throwErrno(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

LinuxChildProcess::LinuxChildProcess(FileDescriptor output) : output_(std::move(output)) {}

LinuxChildProcess::~LinuxChildProcess() {
  if (!isRunning()) return;
  kill();
  try {
    waitUntilExit();
  } catch (const std::system_error&) {
    // Somebody else has reaped it: nothing is left to do.
  }
}

void LinuxChildProcess::adopt(pid_t child) {
  const MutexLock lock(mutex_);
  identifier_ = child;
  // Even a child that has ended already keeps its number until we reap it.
  process_.reset(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
  running_ = true;
}

bool LinuxChildProcess::isRunning() const {
  const MutexLock lock(mutex_);
  return running_;
}

QSData LinuxChildProcess::readOutputToEnd() {
  OutputBuffer output;
  while (output_.valid()) {
    const std::span<std::byte> room = output.room();
    const ssize_t count = ::read(output_.get(), room.data(), room.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throwErrno("read from the output of a child");
    if (count == 0) break;
    const bool flooded = output.length() >= kFloodLength;
    output.commit(static_cast<std::size_t>(count));
    if (!flooded && output.length() >= kFloodLength) {
      (void)::fcntl(output_.get(), F_SETPIPE_SZ, kFloodPipeLength);  // may be more than we may have
    }
  }
  output_.reset();
  return output.take();
}

int LinuxChildProcess::waitUntilExit() {
  if (!isRunning()) return exitStatus_;
  siginfo_t status{};
  // The long wait leaves the child a zombie, so that nothing long is done under the mutex.
  if (!waitForStatus(&status, WEXITED | WNOWAIT)) throwErrno("wait for a child");
  const MutexLock lock(mutex_);
  if (!waitForStatus(&status, WEXITED)) throwErrno("reap a child");
  running_ = false;
  process_.reset();
  exitStatus_ = status.si_status;
  return exitStatus_;
}

void LinuxChildProcess::kill() {
  const MutexLock lock(mutex_);
  if (!running_) return;
  if (process_.valid()) {
    (void)::syscall(SYS_pidfd_send_signal, process_.get(), SIGKILL, nullptr, 0);
  } else {
    (void)::kill(identifier_, SIGKILL);
  }
}

bool LinuxChildProcess::waitForStatus(siginfo_t* status, int options) const {
  const idtype_t type = process_.valid() ? P_PIDFD : P_PID;
  const auto id = static_cast<id_t>(process_.valid() ? process_.get() : identifier_);
  int result = 0;
  do {
    result = ::waitid(type, id, status, options);
  } while (result < 0 && errno == EINTR);
  return result == 0;
}

}  // namespace quillsift
