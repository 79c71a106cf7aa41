#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "jobs/QSJobEntry.h"
#include "platform/Mutex.h"
#include "platform/ProcessLauncher.h"
#include "platform/QSDate.h"
#include "platform/QSError.h"
#include "platform/QSUUID.h"

namespace quillsift {

// The numbers cross the connection unchanged.
enum class QSJobStatus : std::int64_t {
  notStarted = 0,
  running = 1,
  nonZeroExit = 2,  // the child exited non-zero; its output is kept
  failed = 3,
  succeeded = 4,
};

inline constexpr const char* kQSJobErrorDomain = "QSJobErrorDomain";
enum QSJobErrorCode : std::int64_t {
  QSJobErrorLaunchFailed = 1,
  QSJobErrorNonZeroExit = 2,
  QSJobErrorWorkBlockFailed = 3,
};

// A job body that runs in the daemon. Both places may be null; the job always gives both, empty.
// What is left in `entry` becomes the job's result, also when the block returns false.
using WorkBlock = std::function<bool(std::shared_ptr<const QSJobEntry>* entry, QSError* error)>;

// One unit of collection: a child process whose output is captured, or a work block.
//
// Threads: beginSynchronousJob on one thread at a time; everything else on any thread, also while
// the job runs. The job's own mutex is a leaf: held for single loads and stores, nothing is locked
// or called under it. Fields change one at a time, the status after the fields that explain it and
// the date last.
class QSJob {
 public:
  QSJob(std::string executablePath, std::vector<std::string> arguments,
        std::string relativeFilePath);
  QSJob(WorkBlock work, std::string relativeFilePath);
  QSJob() = delete;
  QSJob(const QSJob&) = delete;
  QSJob& operator=(const QSJob&) = delete;
  virtual ~QSJob();

  // Runs the job to its end. Never throws: the outcome is in the fields. May be called again; each
  // run starts over, but dateFinished keeps the date of the run before until it is overwritten.
  void beginSynchronousJob();
  // Kills the child if one is running, and it alone. Changes no field and does not block; without
  // effect on a work block and on a job that is not running.
  void stop();

  bool jobCompletelyFailed() const { return jobCompletelyFailed_; }
  bool jobExitedSuccessfully() const { return jobExitedSuccessfully_; }
  bool sensitive() const { return sensitive_; }
  void setSensitive(bool sensitive) { sensitive_ = sensitive; }
  QSJobStatus jobStatus() const { return jobStatus_; }
  const std::string& relativeFilePathAndName() const { return relativeFilePathAndName_; }
  const std::string& uuid() const { return jobUUIDString_; }
  std::shared_ptr<const QSJobEntry> resultEntry() const;
  std::optional<std::string> failureReason() const;
  std::optional<QSDate> dateFinished() const;

  std::string description() const;

 protected:
  // The body of one run: false and `error` on failure. May throw, which counts as an unknown
  // error. A seam for failures that no body has.
  virtual bool _invokeTaskReturningError(QSError* error);
  void setResultEntry(std::shared_ptr<const QSJobEntry> entry);

 private:
  struct Command {
    std::string executablePath;
    std::vector<std::string> arguments;
  };

  QSJob(std::optional<Command> command, WorkBlock work, std::string relativeFilePathAndName);
  void _resetState();
  bool runBody(QSError* error);
  bool runWorkBlock(QSError* error);
  bool runCommand(QSError* error);
  void endTask();
  void recordSuccess();
  void recordFailure(const QSError& error);
  void setFailure(bool completely, QSJobStatus status, std::string reason);
  void setTask(std::shared_ptr<ChildProcess> task);

  const std::optional<Command> command_;  // empty for a work block
  const WorkBlock workBlock_;             // empty for a command
  const std::string relativeFilePathAndName_;
  const std::string jobUUIDString_;

  std::atomic<bool> jobCompletelyFailed_ = false;
  std::atomic<bool> jobExitedSuccessfully_ = false;
  std::atomic<bool> sensitive_ = true;
  std::atomic<QSJobStatus> jobStatus_ = QSJobStatus::notStarted;

  mutable Mutex mutex_;
  std::shared_ptr<const QSJobEntry> resultEntry_ QS_GUARDED_BY(mutex_);
  std::optional<std::string> failureReason_ QS_GUARDED_BY(mutex_);
  std::optional<QSDate> dateFinished_ QS_GUARDED_BY(mutex_);
  std::shared_ptr<ChildProcess> task_ QS_GUARDED_BY(mutex_);  // while the child's run lasts
};

}  // namespace quillsift
