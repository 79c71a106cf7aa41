#include "platform/linux/LinuxProcessLauncher.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <utility>

#include "platform/linux/ChildSpawning.h"
#include "platform/linux/LinuxChildProcess.h"
#include "platform/linux/SchedulingClass.h"

namespace quillsift {

namespace {

struct Pipe {
  FileDescriptor readEnd;
  FileDescriptor writeEnd;

  // False with errno.
  bool open() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return false;
    readEnd.reset(ends[0]);
    writeEnd.reset(ends[1]);
    return true;
  }
};

void setIgnoredSignalToDefault(int signal) {
  struct sigaction action {};
  if (::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) {
    ::signal(signal, SIG_DFL);
  }
}

}  // namespace

LinuxProcessLauncher::LinuxProcessLauncher(Resolver resolver) : resolver_(std::move(resolver)) {
  setIgnoredSignalToDefault(SIGCHLD);
}

std::shared_ptr<ChildProcess> LinuxProcessLauncher::launch(const LaunchRequest& request,
                                                           QSError* error) {
  const auto failed = [&](int code) -> std::shared_ptr<ChildProcess> {
    setError(error, QSError::posix(code, request.executablePath));
    return nullptr;
  };
  Pipe pipe;
  if (request.captureOutput && !pipe.open()) return failed(errno);
  // Made first: once there is a child nothing may fail.
  const auto process = std::make_shared<LinuxChildProcess>(std::move(pipe.readEnd));
  pid_t child = 0;
  const int code =
      spawnChild(resolver_(request.executablePath), request, pipe.writeEnd.get(), &child);
  pipe.writeEnd.reset();
  if (code != 0) return failed(code);
  process->adopt(child);
  setChildSchedulingClass(child, request.qos);
  return process;
}

}  // namespace quillsift
