#include "tests/doubles/FakeProcessLauncher.h"

#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace quillsift {

namespace {

constexpr pid_t kFirstIdentifier = 1000;
constexpr std::chrono::seconds kPatience{60};

}  // namespace

// What the code under test holds. Its end is the end of the child.
class FakeChild::Handle : public ChildProcess {
 public:
  explicit Handle(std::shared_ptr<FakeChild> child) : child_(std::move(child)) {}
  ~Handle() override { child_->release(); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  pid_t processIdentifier() const override { return child_->processIdentifier(); }
  bool isRunning() const override { return child_->isRunning(); }
  QSData readOutputToEnd() override { return child_->readOutputToEnd(); }
  int waitUntilExit() override { return child_->waitUntilExit(); }
  void kill() override { child_->kill(); }

 private:
  const std::shared_ptr<FakeChild> child_;
};

FakeChild::FakeChild(LaunchRequest request, ScriptedChild script, pid_t identifier)
    : request_(std::move(request)),
      script_(std::move(script)),
      identifier_(identifier),
      outputOpen_(script_.leavesOutputOpen) {
  if (!script_.hangs) status_ = script_.exitCode;
}

bool FakeChild::isRunning() const {
  MutexLock lock(mutex_);
  return !reaped_;
}

void FakeChild::finish(int exitCode) {
  MutexLock lock(mutex_);
  if (!status_) status_ = exitCode;
  changed_.notify_all();
}

void FakeChild::closeOutput() {
  MutexLock lock(mutex_);
  outputOpen_ = false;
  changed_.notify_all();
}

bool FakeChild::wasKilled() const {
  MutexLock lock(mutex_);
  return killed_;
}

std::size_t FakeChild::killCalls() const {
  MutexLock lock(mutex_);
  return killCalls_;
}

bool FakeChild::wasReleased() const {
  MutexLock lock(mutex_);
  return released_;
}

bool FakeChild::wasAbandoned() const {
  MutexLock lock(mutex_);
  return abandoned_;
}

QSData FakeChild::readOutputToEnd() {
  if (script_.onRead) script_.onRead();
  MutexLock lock(mutex_);
  while (!status_ || outputOpen_)
    changed_.wait(mutex_);
  return request_.captureOutput ? QSData(script_.output) : QSData();
}

int FakeChild::waitUntilExit() {
  MutexLock lock(mutex_);
  while (!status_)
    changed_.wait(mutex_);
  reaped_ = true;
  return *status_;
}

void FakeChild::kill() {
  MutexLock lock(mutex_);
  ++killCalls_;
  if (reaped_) return;
  // A child that has ended but was not reaped takes the signal without any effect.
  if (!status_) {
    status_ = SIGKILL;
    killed_ = true;
  }
  changed_.notify_all();
}

void FakeChild::release() {
  MutexLock lock(mutex_);
  released_ = true;
  if (reaped_) return;
  abandoned_ = true;
  if (!status_) {
    status_ = SIGKILL;
    killed_ = true;
  }
  reaped_ = true;
}

void FakeProcessLauncher::script(const std::string& executablePath, ScriptedChild child) {
  MutexLock lock(mutex_);
  scripts_.push_back({executablePath, std::nullopt, std::move(child)});
}

void FakeProcessLauncher::script(const std::string& executablePath,
                                 const std::vector<std::string>& arguments, ScriptedChild child) {
  MutexLock lock(mutex_);
  scripts_.push_back({executablePath, arguments, std::move(child)});
}

void FakeProcessLauncher::scriptEverythingElse(ScriptedChild child) {
  MutexLock lock(mutex_);
  everythingElse_ = std::move(child);
}

void FakeProcessLauncher::onLaunch(std::function<void(FakeChild&)> hook) {
  MutexLock lock(mutex_);
  onLaunch_ = std::move(hook);
}

ScriptedChild FakeProcessLauncher::scriptFor(const LaunchRequest& request) const {
  for (auto script = scripts_.rbegin(); script != scripts_.rend(); ++script) {
    if (script->executablePath != request.executablePath) continue;
    if (!script->arguments || *script->arguments == request.arguments) return script->child;
  }
  return everythingElse_;
}

std::shared_ptr<ChildProcess> FakeProcessLauncher::launch(const LaunchRequest& request,
                                                          QSError* error) {
  std::function<void(FakeChild&)> hook;
  std::shared_ptr<FakeChild> child;
  {
    MutexLock lock(mutex_);
    requests_.push_back(request);
    ScriptedChild script = scriptFor(request);
    if (script.launchError) {
      setError(error, *script.launchError);
      return nullptr;
    }
    child = std::make_shared<FakeChild>(request, std::move(script),
                                        kFirstIdentifier + static_cast<pid_t>(children_.size()));
    children_.push_back(child);
    if (released_) {
      child->kill();
      child->closeOutput();
    }
    hook = onLaunch_;
    changed_.notify_all();
  }
  if (hook) hook(*child);
  return std::make_shared<FakeChild::Handle>(std::move(child));
}

std::vector<LaunchRequest> FakeProcessLauncher::requests() const {
  MutexLock lock(mutex_);
  return requests_;
}

std::vector<std::shared_ptr<FakeChild>> FakeProcessLauncher::children() const {
  MutexLock lock(mutex_);
  return children_;
}

std::shared_ptr<FakeChild> FakeProcessLauncher::child(const std::string& executablePath) const {
  MutexLock lock(mutex_);
  for (auto child = children_.rbegin(); child != children_.rend(); ++child) {
    if ((*child)->request().executablePath == executablePath) return *child;
  }
  return nullptr;
}

void FakeProcessLauncher::waitForChildren(std::size_t count) const {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  MutexLock lock(mutex_);
  while (children_.size() < count) {
    if (changed_.wait_until(mutex_, deadline) == std::cv_status::timeout &&
        children_.size() < count) {
      std::fprintf(stderr, "FakeProcessLauncher: %zu children instead of %zu\n", children_.size(),
                   count);
      std::abort();
    }
  }
}

void FakeProcessLauncher::releaseAll() {
  MutexLock lock(mutex_);
  released_ = true;
  for (const auto& child : children_) {
    child->kill();
    child->closeOutput();
  }
}

}  // namespace quillsift
