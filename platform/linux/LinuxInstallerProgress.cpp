#include "platform/linux/LinuxInstallerProgress.h"

#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/Mutex.h"
#include "platform/linux/Deadline.h"

namespace quillsift {

namespace {

constexpr const char* kControlProgram = "/usr/bin/plymouth";

// Kills a child that runs for too long. At its end the child has ended.
class TimeLimit {
 public:
  TimeLimit(std::shared_ptr<ChildProcess> child, std::chrono::milliseconds limit)
      : thread_([this, child = std::move(child), deadline = deadlineAfter(limit)] {
          MutexLock lock(mutex_);
          while (!ended_) {
            if (changed_.wait_until(mutex_, deadline) == std::cv_status::timeout) break;
          }
          if (!ended_) child->kill();
        }) {}
  ~TimeLimit() {
    {
      MutexLock lock(mutex_);
      ended_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }
  TimeLimit(const TimeLimit&) = delete;
  TimeLimit& operator=(const TimeLimit&) = delete;

 private:
  Mutex mutex_;
  ConditionVariable changed_;
  bool ended_ QS_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace

LinuxInstallerProgress::LinuxInstallerProgress(ProcessLauncher& launcher,
                                               std::chrono::milliseconds limit)
    : launcher_(launcher), limit_(limit) {}

bool LinuxInstallerProgress::isShowing() {
  return succeeds({"--ping"});
}

void LinuxInstallerProgress::hide(const std::string& phase) {
  (void)phase;
  (void)succeeds({"hide-splash"});
}

bool LinuxInstallerProgress::succeeds(std::vector<std::string> arguments) {
  const auto child = launcher_.launch({.executablePath = kControlProgram,
                                       .arguments = std::move(arguments),
                                       .captureOutput = false},
                                      nullptr);
  if (!child) return false;
  try {
    const TimeLimit limit(child, limit_);
    return child->waitUntilExit() == 0;
  } catch (const std::system_error&) {
    return false;  // no thread for the limit: better no answer than a wait without end
  }
}

}  // namespace quillsift
