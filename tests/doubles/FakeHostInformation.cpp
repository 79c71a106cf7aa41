#include "tests/doubles/FakeHostInformation.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace quillsift {

void FakeHostInformation::setControl(const std::string& name, std::string value) {
  MutexLock lock(mutex_);
  controls_[name] = std::move(value);
}

void FakeHostInformation::failControl(const std::string& name, int code) {
  MutexLock lock(mutex_);
  controlFailures_[name] = code;
}

void FakeHostInformation::keepControl(const std::string& name) {
  MutexLock lock(mutex_);
  keptControls_.insert(name);
}

void FakeHostInformation::onControl(std::function<void(const std::string& name)> hook) {
  MutexLock lock(mutex_);
  onControl_ = std::move(hook);
}

std::vector<FakeHostInformation::ControlWrite> FakeHostInformation::controlWrites() const {
  MutexLock lock(mutex_);
  return controlWrites_;
}

void FakeHostInformation::setSystemVersion(
    std::optional<std::map<std::string, std::string>> version) {
  MutexLock lock(mutex_);
  version_ = std::move(version);
}

void FakeHostInformation::setInternalContent(const std::string& subsystem, bool carries) {
  MutexLock lock(mutex_);
  if (carries) {
    internalContent_.insert(subsystem);
  } else {
    internalContent_.erase(subsystem);
  }
}

std::vector<std::string> FakeHostInformation::askedSubsystems() const {
  MutexLock lock(mutex_);
  return askedSubsystems_;
}

void FakeHostInformation::setAnswer(const std::string& key, SystemValue answer) {
  MutexLock lock(mutex_);
  answers_[key] = std::move(answer);
}

void FakeHostInformation::setTranslated(bool translated) {
  MutexLock lock(mutex_);
  translated_ = translated;
}

void FakeHostInformation::setRealTime(timespec time) {
  MutexLock lock(mutex_);
  realTime_ = time;
}

void FakeHostInformation::failRealTime(int code) {
  MutexLock lock(mutex_);
  realTimeFailure_ = code;
}

void FakeHostInformation::setExecutablePath(pid_t process, std::string path) {
  MutexLock lock(mutex_);
  executablePaths_[process] = std::move(path);
}

int FakeHostInformation::systemControl(const char* name, void* out, std::size_t* outLength,
                                       const void* newValue, std::size_t newLength) {
  MutexLock lock(mutex_);
  if (const auto hook = onControl_) {
    lock.unlock();
    hook(name);
    lock.lock();
  }
  const auto failure = controlFailures_.find(name);
  if (failure != controlFailures_.end() && failure->second != 0) {
    errno = failure->second;
    return -1;
  }
  const auto control = controls_.find(name);
  if (control == controls_.end()) {
    errno = ENOENT;
    return -1;
  }
  std::string& value = control->second;
  if (outLength != nullptr) {
    const std::size_t room = std::exchange(*outLength, value.size());
    if (out != nullptr && room < value.size()) {
      errno = ENOMEM;
      return -1;
    }
    if (out != nullptr) std::memcpy(out, value.data(), value.size());
  }
  if (newValue != nullptr) {
    controlWrites_.push_back({name, std::string(static_cast<const char*>(newValue), newLength)});
    if (!keptControls_.contains(name)) value = controlWrites_.back().value;
  }
  return 0;
}

std::optional<std::map<std::string, std::string>> FakeHostInformation::systemVersion() {
  MutexLock lock(mutex_);
  return version_;
}

std::optional<SystemValue> FakeHostInformation::systemAnswer(const std::string& key) {
  MutexLock lock(mutex_);
  const auto answer = answers_.find(key);
  return answer == answers_.end() ? std::nullopt : std::optional(answer->second);
}

bool FakeHostInformation::carriesInternalContent(const std::string& subsystem) {
  MutexLock lock(mutex_);
  askedSubsystems_.push_back(subsystem);
  return internalContent_.contains(subsystem);
}

bool FakeHostInformation::runsTranslated() {
  MutexLock lock(mutex_);
  return translated_;
}

int FakeHostInformation::realTime(timespec* out) {
  MutexLock lock(mutex_);
  if (realTimeFailure_ != 0) {
    errno = realTimeFailure_;
    return -1;
  }
  *out = realTime_;
  return 0;
}

std::string FakeHostInformation::executablePath(pid_t process, std::size_t limit) {
  MutexLock lock(mutex_);
  const auto path = executablePaths_.find(process);
  return path == executablePaths_.end() ? "" : path->second.substr(0, limit);
}

}  // namespace quillsift
