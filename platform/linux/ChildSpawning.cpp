#include "platform/linux/ChildSpawning.h"

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <csignal>
#include <vector>

namespace quillsift {

namespace {

// What happens to the child's descriptors: 0 is ours, 1 and 2 are the output, or the null device
// without one, and that is all it gets.
class DescriptorPlan {
 public:
  explicit DescriptorPlan(int output) {
    add(::posix_spawn_file_actions_init(&actions_));
    if (output >= 0) {
      add(::posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO));
    } else {
      add(::posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0));
    }
    add(::posix_spawn_file_actions_adddup2(&actions_, STDOUT_FILENO, STDERR_FILENO));
    // Ours are all close-on-exec; this is for those of a library that forgets.
    add(::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1));
  }
  ~DescriptorPlan() { ::posix_spawn_file_actions_destroy(&actions_); }
  DescriptorPlan(const DescriptorPlan&) = delete;
  DescriptorPlan& operator=(const DescriptorPlan&) = delete;

  // An errno value when the plan is not complete.
  int failure() const { return failure_; }
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  void add(int code) {
    if (code != 0) failure_ = code;
  }

  posix_spawn_file_actions_t actions_;
  int failure_ = 0;
};

// Every signal at its default and none blocked: what we ignore or block is our own affair. No group
// or session of its own: the scheduler weighs niceness only within a session, and a person's Ctrl-C
// on a daemon in the foreground reaches its children.
class SignalPlan {
 public:
  SignalPlan() {
    sigset_t signals;
    ::posix_spawnattr_init(&attributes_);
    ::sigfillset(&signals);
    ::posix_spawnattr_setsigdefault(&attributes_, &signals);
    ::sigemptyset(&signals);
    ::posix_spawnattr_setsigmask(&attributes_, &signals);
    ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  }
  ~SignalPlan() { ::posix_spawnattr_destroy(&attributes_); }
  SignalPlan(const SignalPlan&) = delete;
  SignalPlan& operator=(const SignalPlan&) = delete;

  const posix_spawnattr_t* get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_;
};

std::vector<char*> argumentVector(const LaunchRequest& request) {
  std::vector<char*> arguments;
  arguments.reserve(request.arguments.size() + 2);
  // posix_spawn takes them as writable and does not write.
  arguments.push_back(const_cast<char*>(request.executablePath.c_str()));
  for (const std::string& argument : request.arguments) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  return arguments;
}

}  // namespace

int spawnChild(const std::string& file, const LaunchRequest& request, int output, pid_t* child) {
  const DescriptorPlan descriptors(output);
  if (descriptors.failure() != 0) return descriptors.failure();
  const SignalPlan signals;
  const std::vector<char*> arguments = argumentVector(request);
  return ::posix_spawn(child, file.c_str(), descriptors.get(), signals.get(), arguments.data(),
                       environ);
}

}  // namespace quillsift
