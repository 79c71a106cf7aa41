#include "tests/platform/linux/RunningProgram.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <utility>

namespace quillsift::testing {

namespace {

constexpr std::chrono::seconds kLimit{60};

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  for (std::string& text : texts)
    result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

}  // namespace

RunningProgram::RunningProgram(const std::vector<std::string>& arguments,
                               const std::vector<std::string>& environment) {
  std::vector<std::string> argumentTexts = arguments;
  std::vector<std::string> environmentTexts = environment;
  for (char** variable = environ; *variable != nullptr; ++variable)
    environmentTexts.emplace_back(*variable);
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) return;
  stream_ = FileDescriptor(ends[0]);
  const FileDescriptor writeEnd(ends[1]);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDERR_FILENO);
  if (::posix_spawnp(&process_, argumentTexts[0].c_str(), &actions, nullptr,
                     pointers(argumentTexts).data(), pointers(environmentTexts).data()) != 0) {
    process_ = -1;
  }
  ::posix_spawn_file_actions_destroy(&actions);
}

RunningProgram::~RunningProgram() {
  if (process_ <= 0) return;
  ::kill(process_, SIGKILL);
  ::waitpid(process_, nullptr, 0);
}

bool RunningProgram::readMore(std::chrono::milliseconds silence) {
  pollfd readable{.fd = stream_.get(), .events = POLLIN, .revents = 0};
  if (::poll(&readable, 1, static_cast<int>(silence.count())) <= 0) return false;
  char buffer[4096];
  const ssize_t length = ::read(stream_.get(), buffer, sizeof(buffer));
  if (length <= 0) return false;
  output_.append(buffer, static_cast<std::size_t>(length));
  return true;
}

bool RunningProgram::waitForOutput(const std::string& text, std::chrono::milliseconds silence) {
  while (output_.find(text) == std::string::npos) {
    if (!readMore(silence)) return false;
  }
  return true;
}

int RunningProgram::wait() {
  while (readMore(kLimit)) {
  }
  int status = 0;
  const pid_t process = std::exchange(process_, -1);
  if (process <= 0 || ::waitpid(process, &status, 0) != process) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

CommandResult runCommand(const std::string& command) {
  RunningProgram shell({"sh", "-c", "exec timeout 60 " + command});
  const int status = shell.wait();
  return {.status = status, .output = shell.output()};
}

}  // namespace quillsift::testing
