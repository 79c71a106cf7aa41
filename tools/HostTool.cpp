#include "tools/HostTool.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "tools/Descriptor.h"
#include "tools/ExitCodes.h"
#include "tools/Files.h"

namespace quillsift::tools {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kExitCannotExecute = 127;

int openPidDescriptor(pid_t process) {
  // By number: the C library's header for it cannot be included from C++.
  return static_cast<int>(::syscall(SYS_pidfd_open, process, 0));
}

int millisecondsUntil(Clock::time_point moment) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(moment - Clock::now());
  return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, std::int64_t{3600} * 1000));
}

bool isReadable(int descriptor, int milliseconds) {
  pollfd entry{descriptor, POLLIN, 0};
  const auto end = Clock::now() + std::chrono::milliseconds(milliseconds);
  int count = ::poll(&entry, 1, milliseconds);
  while (count < 0 && errno == EINTR)
    count = ::poll(&entry, 1, millisecondsUntil(end));
  return count > 0;
}

std::vector<std::string> environment(std::string_view locale) {
  std::vector<std::string> variables = {
      "PATH=/usr/sbin:/usr/bin:/sbin:/bin",
      "HOME=/",
      "TERM=dumb",
      "PAGER=cat",
      "SYSTEMD_PAGER=",
      "SYSTEMD_COLORS=0",
      "LVM_SUPPRESS_FD_WARNINGS=1",
      "LC_ALL=" + std::string(locale),
  };
  for (const char* name : {"TZ", "TPM2TOOLS_TCTI"}) {
    if (const char* value = std::getenv(name)) {
      variables.push_back(std::string(name) + "=" + value);
    }
  }
  return variables;
}

std::vector<char*> pointersTo(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  pointers.reserve(strings.size() + 1);
  for (std::string& string : strings)
    pointers.push_back(string.data());
  pointers.push_back(nullptr);
  return pointers;
}

Descriptor openNullDevice() {
  return Descriptor(::open("/dev/null", O_RDWR | O_CLOEXEC));
}

// In the new process: nothing inherited but what is set here, no memory taken.
[[noreturn]] void executeTool(const char* path, pid_t parent, int input, int output, int error,
                              char* const* arguments, char* const* variables) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(kExitCannotExecute);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  ::signal(SIGPIPE, SIG_DFL);
  const rlimit noCore{0, 0};
  ::setrlimit(RLIMIT_CORE, &noCore);
  if (::dup2(input, STDIN_FILENO) < 0 || ::dup2(output, STDOUT_FILENO) < 0 ||
      ::dup2(error, STDERR_FILENO) < 0) {
    ::_exit(kExitCannotExecute);
  }
  ::close_range(STDERR_FILENO + 1, ~0U, 0);
  ::execve(path, arguments, variables);
  ::_exit(kExitCannotExecute);
}

ToolResult resultOf(int status) {
  if (WIFEXITED(status)) return {ToolResult::End::exited, WEXITSTATUS(status)};
  return {ToolResult::End::killed, WTERMSIG(status)};
}

// The processes whose parent is `parent`, by the fourth field of their status line.
std::vector<pid_t> childrenOf(pid_t parent) {
  std::vector<pid_t> children;
  const std::unique_ptr<DIR, int (*)(DIR*)> processes(::opendir("/proc"), ::closedir);
  if (!processes) return children;
  while (const dirent* entry = ::readdir(processes.get())) {
    const std::string_view name = entry->d_name;
    pid_t process = 0;
    if (std::from_chars(name.data(), name.data() + name.size(), process).ec != std::errc())
      continue;
    const auto status = readFile("/proc/" + std::string(name) + "/stat", 4096);
    if (!status) continue;
    const std::size_t behindName = status->rfind(')');
    if (behindName == std::string::npos || behindName + 4 > status->size()) continue;
    if (std::atoi(status->c_str() + behindName + 4) == parent) children.push_back(process);
  }
  return children;
}

}  // namespace

struct HostTool::Child {
  pid_t process;
  Descriptor end;     // readable once the process has ended
  Descriptor output;  // the reading side of its pipe
  std::size_t left;   // how many bytes it may still print
  bool printedTooMuch = false;
};

ToolResult HostTool::run(const ToolRequest& request) {
  const auto path = host_.program(request.program);
  if (!path) return {ToolResult::End::notInstalled};
  output_.flush();
  int error = 0;
  auto child = start(*path, request, &error);
  if (!child) return {ToolResult::End::notStarted, error};

  LineSplitter splitter(request.filter, [this](std::string_view line) { output_.line(line); });
  LineSplitter* const lines = request.filter ? &splitter : nullptr;
  const auto waitUntil = [&](Clock::time_point limit, bool mayStop) {
    bool pipeIsOpen = true;
    while (true) {
      pollfd entries[] = {{child->end.get(), POLLIN, 0},
                          {pipeIsOpen ? child->output.get() : -1, POLLIN, 0}};
      const int left = millisecondsUntil(limit);
      if (::poll(entries, 2, left) < 0 && errno != EINTR) return false;
      if (entries[1].revents != 0) pipeIsOpen = pump(*child, lines);
      if (entries[0].revents != 0) return true;
      if (left == 0 || (child->printedTooMuch && mayStop)) return false;
    }
  };

  bool ended = waitUntil(Clock::now() + request.limit, true);
  const bool timedOut = !ended && !child->printedTooMuch;
  for (const int signal : {SIGTERM, SIGKILL}) {
    if (ended) break;
    ::kill(child->process, signal);
    ended = waitUntil(Clock::now() + kGrace, false);
  }
  int status = 0;
  if (ended) {
    while (::waitpid(child->process, &status, 0) < 0 && errno == EINTR) {
    }
  } else {
    abandoned_.insert(child->process);
  }
  killOrphans();
  // All that wrote to the pipe are gone, what is in it is the rest.
  while (isReadable(child->output.get(), 0) && pump(*child, lines)) {
  }
  if (lines != nullptr) lines->finish();
  output_.flush();
  if (timedOut) return {ToolResult::End::timedOut};
  if (child->printedTooMuch) return {ToolResult::End::tooMuch};
  return resultOf(status);
}

std::optional<HostTool::Child> HostTool::start(const std::string& path, const ToolRequest& request,
                                               int* error) {
  // Helpers that a tool leaves behind become our children, so that killOrphans finds them.
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  std::vector<std::string> arguments = {request.program};
  arguments.insert(arguments.end(), request.arguments.begin(), request.arguments.end());
  std::vector<std::string> variables = environment("C");
  const std::vector<char*> argumentPointers = pointersTo(arguments);
  const std::vector<char*> variablePointers = pointersTo(variables);
  const Descriptor null = openNullDevice();
  int pipe[2];
  if (!null.valid() || ::pipe2(pipe, O_CLOEXEC) != 0) {
    *error = errno;
    return std::nullopt;
  }
  Descriptor reading(pipe[0]);
  const Descriptor writing(pipe[1]);
  const int errorDescriptor = request.discardStandardError ? null.get() : writing.get();

  const pid_t parent = ::getpid();
  const pid_t process = ::fork();
  if (process == 0) {
    executeTool(path.c_str(), parent, null.get(), writing.get(), errorDescriptor,
                argumentPointers.data(), variablePointers.data());
  }
  if (process < 0) {
    *error = errno;
    return std::nullopt;
  }
  Descriptor end(openPidDescriptor(process));
  if (!end.valid()) {
    *error = errno;
    ::kill(process, SIGKILL);
    while (::waitpid(process, nullptr, 0) < 0 && errno == EINTR) {
    }
    return std::nullopt;
  }
  return Child{process, std::move(end), std::move(reading), request.mostBytes};
}

// Reads once and passes it on; false at the end of the stream.
bool HostTool::pump(Child& child, LineSplitter* splitter) {
  char bytes[64 * 1024];
  ssize_t count = ::read(child.output.get(), bytes, sizeof bytes);
  while (count < 0 && errno == EINTR)
    count = ::read(child.output.get(), bytes, sizeof bytes);
  if (count <= 0) return false;
  give(child, splitter, {bytes, static_cast<std::size_t>(count)});
  return true;
}

void HostTool::give(Child& child, LineSplitter* splitter, std::string_view bytes) {
  const std::string_view taken = bytes.substr(0, child.left);
  child.left -= taken.size();
  child.printedTooMuch = child.printedTooMuch || taken.size() < bytes.size();
  if (splitter != nullptr) {
    splitter->feed(taken);
  } else {
    output_.write(taken);
  }
}

void HostTool::killOrphans() {
  // A helper may start another before it dies; a tool that does so for ever is not worth a loop
  // without an end.
  for (int round = 0; round < 8; ++round) {
    pid_t reaped = 0;
    do {
      reaped = ::waitpid(-1, nullptr, WNOHANG);
      abandoned_.erase(reaped);
    } while (reaped > 0);
    if (reaped < 0) return;  // ECHILD, the usual case
    bool found = false;
    for (const pid_t orphan : childrenOf(::getpid())) {
      if (abandoned_.contains(orphan)) continue;
      found = true;
      const Descriptor end(openPidDescriptor(orphan));
      ::kill(orphan, SIGKILL);
      reap(orphan, end.get());
    }
    if (!found) return;
  }
}

void HostTool::reap(pid_t process, int descriptor) {
  if (isReadable(descriptor, static_cast<int>(kGrace.count()))) {
    while (::waitpid(process, nullptr, 0) < 0 && errno == EINTR) {
    }
  } else {
    abandoned_.insert(process);
  }
}

int HostTool::become(const std::string& program, const std::vector<std::string>& arguments,
                     bool discardStandardError, const char* locale) {
  const auto path = host_.program(program);
  if (!path) {
    output_.line(program + " not installed");
    return kExitNotHere;
  }
  output_.flush();
  std::vector<std::string> strings = {program};
  strings.insert(strings.end(), arguments.begin(), arguments.end());
  std::vector<std::string> variables = environment(locale);
  const std::vector<char*> argumentPointers = pointersTo(strings);
  const std::vector<char*> variablePointers = pointersTo(variables);
  const Descriptor null = openNullDevice();
  const bool ready = null.valid() && ::dup2(null.get(), STDIN_FILENO) >= 0 &&
                     ::dup2(output_.descriptor(), STDOUT_FILENO) >= 0 &&
                     (!discardStandardError || ::dup2(null.get(), STDERR_FILENO) >= 0);
  if (ready) ::execve(path->c_str(), argumentPointers.data(), variablePointers.data());
  const int error = errno;
  output_.line("cannot start " + *path + ": " + std::strerror(error));
  return kExitNotHere;
}

}  // namespace quillsift::tools
