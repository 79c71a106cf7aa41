#pragma once

#include <sys/types.h>
#include <sys/wait.h>

#include "platform/FileDescriptor.h"
#include "platform/Mutex.h"
#include "platform/ProcessLauncher.h"

namespace quillsift {

// A child that only this object reaps. Killing and reaping exclude each other by a mutex, and the
// signal goes through a process descriptor that cannot mean another process; on a host that grants
// none the number is used, which is the child's for as long as it has not been reaped. The
// descriptors are closed when the output has been read and the child reaped, not when the object
// goes: jobs keep their children's objects.
class LinuxChildProcess final : public ChildProcess {
 public:
  // `output` is the read end of the pipe, or none when nothing is captured.
  explicit LinuxChildProcess(FileDescriptor output);
  ~LinuxChildProcess() override;

  // Takes charge of a child just started. Once, before another thread gets to know the object.
  void adopt(pid_t child);

  pid_t processIdentifier() const override { return identifier_; }
  bool isRunning() const override;
  QSData readOutputToEnd() override;
  int waitUntilExit() override;
  void kill() override;

 private:
  // waitid on this child; false with errno.
  bool waitForStatus(siginfo_t* status, int options) const;

  pid_t identifier_ = 0;
  FileDescriptor output_;   // only the owner of the run
  FileDescriptor process_;  // closed under the mutex by the owner of the run, once reaped
  mutable Mutex mutex_;
  bool running_ QS_GUARDED_BY(mutex_) = false;  // to be reaped
  int exitStatus_ = 0;                          // only the owner of the run
};

}  // namespace quillsift
