#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Mutex.h"
#include "platform/ProcessLauncher.h"

namespace quillsift {

// What a child of FakeProcessLauncher will do.
struct ScriptedChild {
  std::string output{};
  int exitCode = 0;
  std::optional<QSError> launchError{};  // the launch fails with it
  bool hangs = false;                    // runs until it is killed or finish is called
  bool leavesOutputOpen = false;         // its output ends only when closeOutput is called
  std::function<void()> onRead{};        // runs in readOutputToEnd, which may so throw
};

// One child as the test sees it. Any thread.
class FakeChild {
 public:
  FakeChild(LaunchRequest request, ScriptedChild script, pid_t identifier);

  const LaunchRequest& request() const { return request_; }
  pid_t processIdentifier() const { return identifier_; }
  bool isRunning() const;
  // Ends a hanging child with this code, or closes the output that somebody left open.
  void finish(int exitCode);
  void closeOutput();

  bool wasKilled() const;         // by a signal that reached it
  std::size_t killCalls() const;  // those that came too late included
  bool wasReaped() const { return !isRunning(); }
  bool wasReleased() const;   // its ChildProcess has been destroyed
  bool wasAbandoned() const;  // its ChildProcess was destroyed while it ran

 private:
  class Handle;
  friend class FakeProcessLauncher;

  QSData readOutputToEnd();
  int waitUntilExit();
  void kill();
  void release();

  const LaunchRequest request_;
  const ScriptedChild script_;
  const pid_t identifier_;
  mutable Mutex mutex_;
  ConditionVariable changed_;
  std::optional<int> status_ QS_GUARDED_BY(mutex_);  // set once it has ended
  bool outputOpen_ QS_GUARDED_BY(mutex_) = false;
  bool reaped_ QS_GUARDED_BY(mutex_) = false;
  bool killed_ QS_GUARDED_BY(mutex_) = false;
  bool released_ QS_GUARDED_BY(mutex_) = false;
  bool abandoned_ QS_GUARDED_BY(mutex_) = false;
  std::size_t killCalls_ QS_GUARDED_BY(mutex_) = 0;
};

// Starts scripted children. A program without a script prints nothing and exits with 0.
class FakeProcessLauncher : public ProcessLauncher {
 public:
  // The newest script that fits decides: same path, and same arguments when they are given.
  void script(const std::string& executablePath, ScriptedChild child);
  void script(const std::string& executablePath, const std::vector<std::string>& arguments,
              ScriptedChild child);
  void scriptEverythingElse(ScriptedChild child);
  // Runs in every launch that does not fail, before it returns.
  void onLaunch(std::function<void(FakeChild&)> hook);

  std::shared_ptr<ChildProcess> launch(const LaunchRequest& request, QSError* error) override;

  // All launches in order, failed ones included; and the children of those that did not fail.
  std::vector<LaunchRequest> requests() const;
  std::vector<std::shared_ptr<FakeChild>> children() const;
  // The newest child of this program; null if there is none.
  std::shared_ptr<FakeChild> child(const std::string& executablePath) const;
  // Until at least `count` children have been started. Ends the process after a minute.
  void waitForChildren(std::size_t count) const;
  // Kills whatever still runs and closes what was left open, also of later children.
  void releaseAll();

 private:
  struct Script {
    std::string executablePath;
    std::optional<std::vector<std::string>> arguments;
    ScriptedChild child;
  };

  ScriptedChild scriptFor(const LaunchRequest& request) const QS_REQUIRES(mutex_);

  mutable Mutex mutex_;
  mutable ConditionVariable changed_;
  std::vector<Script> scripts_ QS_GUARDED_BY(mutex_);
  ScriptedChild everythingElse_ QS_GUARDED_BY(mutex_);
  std::function<void(FakeChild&)> onLaunch_ QS_GUARDED_BY(mutex_);
  std::vector<LaunchRequest> requests_ QS_GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<FakeChild>> children_ QS_GUARDED_BY(mutex_);
  bool released_ QS_GUARDED_BY(mutex_) = false;
};

}  // namespace quillsift
