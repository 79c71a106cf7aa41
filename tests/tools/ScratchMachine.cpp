#include "tests/tools/ScratchMachine.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tools/Recipe.h"

namespace quillsift::tools {

namespace {

constexpr int kHangMilliseconds = 120 * 1000;

void writeFile(const std::string& path, std::string_view content, mode_t mode) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << content;
  ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
}

void makeLink(const std::string& path, const std::string& target) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  ASSERT_EQ(::symlink(target.c_str(), path.c_str()), 0) << path;
}

// In the child: whoever runs the tests, root or not, has no special rights from here on.
void dropPrivileges() {
  constexpr uid_t kNobody = 65534;
  if (::geteuid() != 0) return;
  if (::setgroups(0, nullptr) != 0 || ::setgid(kNobody) != 0 || ::setuid(kNobody) != 0) {
    ::_exit(254);
  }
}

}  // namespace

ScratchMachine::ScratchMachine() {
  std::string pattern = testing::TempDir() + "quillsift-machine-XXXXXX";
  directory_ = ::mkdtemp(pattern.data());
  std::filesystem::permissions(directory_, std::filesystem::perms(0755));
  for (const std::string& part : {root(), tree(), programs()}) {
    std::filesystem::create_directories(part);
    std::filesystem::permissions(part, std::filesystem::perms(0755));
  }
}

ScratchMachine::~ScratchMachine() {
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

void ScratchMachine::file(const std::string& path, std::string_view content, mode_t mode) {
  writeFile(root() + path, content, mode);
}

void ScratchMachine::directory(const std::string& path) {
  std::filesystem::create_directories(root() + path);
}

void ScratchMachine::link(const std::string& path, const std::string& target) {
  makeLink(root() + path, target);
}

void ScratchMachine::program(const std::string& name, const std::string& script) {
  writeFile(programs() + "/" + name, "#!/bin/sh\n" + script + "\n", 0755);
}

void ScratchMachine::treeFile(const std::string& path, std::string_view content) {
  writeFile(tree() + path, content, 0644);
}

void ScratchMachine::treeLink(const std::string& path, const std::string& target) {
  makeLink(tree() + path, target);
}

RunResult ScratchMachine::run(const std::string& planPath,
                              const std::vector<std::string>& arguments) const {
  int output = -1;
  const pid_t process = start(planPath, arguments, &output);
  RunResult result;
  result.output = readToEnd(output);
  result.exitCode = exitCodeOf(process);
  return result;
}

pid_t ScratchMachine::start(const std::string& planPath, const std::vector<std::string>& arguments,
                            int* output) const {
  int pipe[2];
  EXPECT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
  const pid_t process = ::fork();
  if (process == 0) {
    ::dup2(pipe[1], STDOUT_FILENO);
    ::dup2(pipe[1], STDERR_FILENO);
    ::close(pipe[0]);
    ::close(pipe[1]);
    if (ordinaryUser_) dropPrivileges();
    int code = 255;
    if (const Recipe* recipe = recipeNamed(planPath)) {
      const Host machine = host();
      Output out(STDOUT_FILENO);
      Invocation invocation{planPath, arguments, machine, out};
      code = recipe->run(invocation);
    }
    ::_exit(code);
  }
  ::close(pipe[1]);
  *output = pipe[0];
  return process;
}

OutputPipe::OutputPipe() {
  EXPECT_EQ(::pipe2(ends_, O_CLOEXEC), 0);
}

std::string OutputPipe::printed() {
  ::close(ends_[1]);
  return readToEnd(ends_[0]);
}

std::string readToEnd(int descriptor) {
  std::string text;
  while (true) {
    pollfd entry{descriptor, POLLIN, 0};
    if (::poll(&entry, 1, kHangMilliseconds) <= 0) {
      ADD_FAILURE() << "no end of the output; so far: " << text;
      break;
    }
    char bytes[65536];
    const ssize_t count = ::read(descriptor, bytes, sizeof bytes);
    if (count <= 0) break;
    text.append(bytes, static_cast<std::size_t>(count));
  }
  ::close(descriptor);
  return text;
}

int exitCodeOf(pid_t process) {
  int status = 0;
  EXPECT_EQ(::waitpid(process, &status, 0), process);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace quillsift::tools
