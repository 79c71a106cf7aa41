#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/HostInformation.h"
#include "platform/Mutex.h"

namespace quillsift {

// A host made of settings: no controls, no version record, no internal content, a clock that stands
// at 2023-11-14 22:13:20 UTC. Any thread.
class FakeHostInformation : public HostInformation {
 public:
  struct ControlWrite {
    std::string name;
    std::string value;
  };

  void setControl(const std::string& name, std::string value);
  // Every call for `name` fails with this errno value; 0 takes that back.
  void failControl(const std::string& name, int code);
  // Writes to `name` are recorded and change nothing: such a control takes a new value as a mark of
  // what is asked.
  void keepControl(const std::string& name);
  // Runs before each systemControl, outside all locks: a value may change between two calls.
  void onControl(std::function<void(const std::string& name)> hook);
  std::vector<ControlWrite> controlWrites() const;

  void setSystemVersion(std::optional<std::map<std::string, std::string>> version);
  void setInternalContent(const std::string& subsystem, bool carries);
  std::vector<std::string> askedSubsystems() const;
  void setAnswer(const std::string& key, SystemValue answer);
  void setTranslated(bool translated);
  void setRealTime(timespec time);
  // The clock fails with this errno value; 0 takes that back.
  void failRealTime(int code);
  void setExecutablePath(pid_t process, std::string path);

  int systemControl(const char* name, void* out, std::size_t* outLength, const void* newValue,
                    std::size_t newLength) override;
  std::optional<std::map<std::string, std::string>> systemVersion() override;
  std::optional<SystemValue> systemAnswer(const std::string& key) override;
  bool carriesInternalContent(const std::string& subsystem) override;
  bool runsTranslated() override;
  int realTime(timespec* out) override;
  std::string executablePath(pid_t process, std::size_t limit) override;

 private:
  mutable Mutex mutex_;
  std::map<std::string, std::string> controls_ QS_GUARDED_BY(mutex_);
  std::map<std::string, int> controlFailures_ QS_GUARDED_BY(mutex_);
  std::set<std::string> keptControls_ QS_GUARDED_BY(mutex_);
  std::function<void(const std::string&)> onControl_ QS_GUARDED_BY(mutex_);
  std::vector<ControlWrite> controlWrites_ QS_GUARDED_BY(mutex_);
  std::optional<std::map<std::string, std::string>> version_ QS_GUARDED_BY(mutex_);
  std::map<std::string, SystemValue> answers_ QS_GUARDED_BY(mutex_);
  std::set<std::string> internalContent_ QS_GUARDED_BY(mutex_);
  std::vector<std::string> askedSubsystems_ QS_GUARDED_BY(mutex_);
  bool translated_ QS_GUARDED_BY(mutex_) = false;
  timespec realTime_ QS_GUARDED_BY(mutex_){1700000000, 0};
  int realTimeFailure_ QS_GUARDED_BY(mutex_) = 0;
  std::map<pid_t, std::string> executablePaths_ QS_GUARDED_BY(mutex_);
};

}  // namespace quillsift
