#include "jobs/QSJob.h"

#include <new>
#include <utility>

#include "jobs/QSTime.h"
#include "platform/Platform.h"
#include "platform/Text.h"

namespace quillsift {

namespace {

QSError jobError(QSJobErrorCode code) {
  QSError error;
  error.domain = kQSJobErrorDomain;
  error.code = code;
  return error;
}

QSError jobError(QSJobErrorCode code, QSError underlying) {
  QSError error = jobError(code);
  if (underlying) error.underlying = std::make_shared<const QSError>(std::move(underlying));
  return error;
}

}  // namespace

QSJob::QSJob(std::optional<Command> command, WorkBlock work, std::string relativeFilePathAndName)
    : command_(std::move(command)),
      workBlock_(std::move(work)),
      relativeFilePathAndName_(std::move(relativeFilePathAndName)),
      jobUUIDString_(QSUUID::random().text()) {}

QSJob::QSJob(std::string executablePath, std::vector<std::string> arguments,
             std::string relativeFilePath)
    : QSJob(Command{std::move(executablePath), std::move(arguments)}, nullptr,
            std::move(relativeFilePath)) {}

QSJob::QSJob(WorkBlock work, std::string relativeFilePath)
    : QSJob(std::nullopt, std::move(work), std::move(relativeFilePath)) {}

QSJob::~QSJob() = default;

// --- a run

void QSJob::beginSynchronousJob() {
  _resetState();
  QSError error;
  if (runBody(&error)) {
    recordSuccess();
  } else {
    try {
      recordFailure(error);
    } catch (const std::bad_alloc&) {
      setFailure(true, QSJobStatus::failed, std::string());  // of what, there is no memory to say
    }
    // What was never launched has not finished either.
    if (error.code == QSJobErrorLaunchFailed) return;
  }
  const QSDate finished = currentDate();
  MutexLock lock(mutex_);
  dateFinished_ = finished;
}

void QSJob::_resetState() {
  jobStatus_ = QSJobStatus::notStarted;
  jobExitedSuccessfully_ = false;
  jobCompletelyFailed_ = false;
  setResultEntry(nullptr);
  MutexLock lock(mutex_);
  failureReason_.reset();
}

// The job boundary: no exception passes it, and no child outlives it.
bool QSJob::runBody(QSError* error) {
  bool succeeded = false;
  try {
    succeeded = _invokeTaskReturningError(error);
  } catch (...) {
    *error = QSError();
  }
  endTask();
  return succeeded;
}

bool QSJob::_invokeTaskReturningError(QSError* error) {
  setError(error, QSError());
  return command_ ? runCommand(error) : runWorkBlock(error);
}

bool QSJob::runWorkBlock(QSError* error) {
  jobStatus_ = QSJobStatus::running;
  std::shared_ptr<const QSJobEntry> entry;
  QSError blockError;
  const bool succeeded = workBlock_(&entry, &blockError);
  setResultEntry(std::move(entry));
  if (!succeeded) setError(error, jobError(QSJobErrorWorkBlockFailed, std::move(blockError)));
  return succeeded;
}

bool QSJob::runCommand(QSError* error) {
  QSError launchError;
  const std::shared_ptr<ChildProcess> child =
      Platform::current().processLauncher->launch({.executablePath = command_->executablePath,
                                                   .arguments = command_->arguments,
                                                   .qos = currentQOS(),
                                                   .captureOutput = true},
                                                  &launchError);
  if (!child) {
    setError(error, jobError(QSJobErrorLaunchFailed, std::move(launchError)));
    return false;
  }
  setTask(child);  // from here on it can be stopped
  jobStatus_ = QSJobStatus::running;
  setResultEntry(std::make_shared<const QSJobEntry>(child->readOutputToEnd()));
  const int terminationStatus = child->waitUntilExit();
  if (terminationStatus == 0) return true;
  QSError exitError = jobError(QSJobErrorNonZeroExit);
  exitError.localizedDescription = formatted("Exited with Code:%d", terminationStatus);
  setError(error, std::move(exitError));
  return false;
}

// Also takes the child's descriptors away from a job that may be kept for hours. The child is
// reaped here, so that a concurrent stop, which may hold the last reference, never has to.
void QSJob::endTask() {
  std::shared_ptr<ChildProcess> child;
  {
    MutexLock lock(mutex_);
    child.swap(task_);
  }
  if (!child || !child->isRunning()) return;
  try {
    child->kill();
    (void)child->waitUntilExit();
  } catch (...) {
    // The end of the last reference reaps what could not be reaped here.
  }
}

void QSJob::recordSuccess() {
  jobExitedSuccessfully_ = true;
  jobStatus_ = QSJobStatus::succeeded;
}

void QSJob::recordFailure(const QSError& error) {
  switch (error.code) {
    case QSJobErrorLaunchFailed:
      setFailure(true, QSJobStatus::failed,
                 "Task failed to launch due to Spawner Error:" +
                     (error.underlying ? orNull(*error.underlying) : kNullText));
      break;
    case QSJobErrorNonZeroExit:
      setFailure(false, QSJobStatus::nonZeroExit,
                 "Tasked exited with a non-zero result. " + error.description());
      break;
    case QSJobErrorWorkBlockFailed:
      setFailure(false, QSJobStatus::failed,
                 "Worker block reported a failure. " + error.description());
      break;
    default:
      setFailure(true, QSJobStatus::failed, "QSJob failed with an unknown error.");
  }
}

void QSJob::setFailure(bool completely, QSJobStatus status, std::string reason) {
  if (completely) jobCompletelyFailed_ = true;
  {
    MutexLock lock(mutex_);
    failureReason_ = std::move(reason);
  }
  jobStatus_ = status;
}

// --- from other threads

void QSJob::stop() {
  std::shared_ptr<ChildProcess> child;
  {
    MutexLock lock(mutex_);
    child = task_;
  }
  if (child && child->isRunning() && jobStatus_.load() <= QSJobStatus::running) child->kill();
}

std::shared_ptr<const QSJobEntry> QSJob::resultEntry() const {
  MutexLock lock(mutex_);
  return resultEntry_;
}

std::optional<std::string> QSJob::failureReason() const {
  MutexLock lock(mutex_);
  return failureReason_;
}

std::optional<QSDate> QSJob::dateFinished() const {
  MutexLock lock(mutex_);
  return dateFinished_;
}

// The old entry, perhaps large, is freed outside the lock.
void QSJob::setResultEntry(std::shared_ptr<const QSJobEntry> entry) {
  MutexLock lock(mutex_);
  resultEntry_.swap(entry);
}

void QSJob::setTask(std::shared_ptr<ChildProcess> task) {
  MutexLock lock(mutex_);
  task_ = std::move(task);
}

std::string QSJob::description() const {
  const std::shared_ptr<const QSJobEntry> entry = resultEntry();
  return formatted(
      "### QSJob:%p ###\nOutputPath:%s\nisTask:%d\nisWorkBlock:%d\njobCompletelyFailed:%d\n"
      "jobExitedSuccessfully:%d\nfailureReason:%s\nSize:%lu\nDateFinished:%s",
      static_cast<const void*>(this), relativeFilePathAndName_.c_str(), command_ ? 1 : 0,
      workBlock_ ? 1 : 0, jobCompletelyFailed() ? 1 : 0, jobExitedSuccessfully() ? 1 : 0,
      orNull(failureReason()).c_str(), entry ? static_cast<unsigned long>(entry->length()) : 0UL,
      orNull(dateFinished()).c_str());
}

}  // namespace quillsift
