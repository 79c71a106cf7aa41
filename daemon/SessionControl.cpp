// Starting, ending and clearing a session, and giving back the volumes it mounted.

#include <chrono>
#include <exception>
#include <utility>

#include "daemon/QSServiceClient.h"
#include "daemon/QSServiceDaemon.h"
#include "host/QSVolumeUtilities.h"
#include "host/SystemLogging.h"
#include "jobs/QSTime.h"
#include "platform/Platform.h"

namespace quillsift {

namespace {

constexpr const char* kUnmountQueueLabel = "io.vantor.quillsift.unmount_queue";
constexpr std::chrono::seconds kUnmountDelay{10};

// Letting go of a session's output can mean returning gigabytes to the kernel: not under a lock.
void releaseLater(std::vector<std::shared_ptr<QSJob>> jobs) {
  Platform::current()
      .workQueues->global(QOSClass::utility)
      .async([jobs = std::move(jobs)]() mutable {
        jobs.clear();
        Platform::current().processMemory->returnFreed();
      });
}

void setFlag(bool* out, bool value) {
  if (out != nullptr) *out = value;
}

}  // namespace

void QSServiceDaemon::takeQuillsift(bool* refused) {
  VariablesLockHolder lock(quillsiftVariablesLock_);
  if (quillsiftRunning_ || _savingQuillsift()) return setFlag(refused, true);

  lock.unlock();
  _waitIfSavingQuillsift();
  lock.lock();
  if (quillsiftRunning_) return setFlag(refused, true);  // another start won meanwhile

  __clearRecoveryData();
  const QSUUID session = QSUUID::random();
  sessionUUID_ = session;
  runQueue_->async([weak = weak_from_this(), session] {
    if (const auto daemon = weak.lock()) daemon->runSession(session);
  });
  // Last, since all of this takes memory: a session that counts as running has a body that ends.
  quillsiftRunning_ = true;
  lock.unlock();
  setFlag(refused, false);
}

bool QSServiceDaemon::currentlyTakingQuillsift() {
  VariablesLockHolder lock(quillsiftVariablesLock_);
  return quillsiftRunning_;
}

void QSServiceDaemon::runSession(const QSUUID& sessionUUID) {
  bool complete = false;
  try {
    __quillsiftBeginWithSessionUUID(sessionUUID);
    complete = true;
  } catch (const std::exception& exception) {
    logToSystem(kLogError, "Session ended early. %s", exception.what());
  }
  VariablesLockHolder lock(quillsiftVariablesLock_);
  // A clear and a new start may have come while this body ran: all is then the new session's.
  if (sessionUUID_ != sessionUUID) return;
  quillsiftRunning_ = false;
  if (complete) return;
  // What there is can still be saved, and clients wait for a date.
  jobs_.stopAll();
  if (!jobs_.empty()) jobs_.setDateFinished(currentDate());
}

void QSServiceDaemon::__quillsiftBeginWithSessionUUID(const QSUUID& sessionUUID) {
  runner_.run(sessionUUID, shared_from_this());
}

void QSServiceDaemon::announceSessionStarted() {
  broadcastAndWait([](QSServiceClient& client) { client.quillsiftStarted(); });
}

void QSServiceDaemon::endSession(const std::function<void()>& afterStop) {
  VariablesLockHolder lock(quillsiftVariablesLock_);
  jobs_.stopAll();
  afterStop();
  const QSDate finished = currentDate();
  _autoSaveQuillsiftIfApplicable(lock);
  // Last: who hears the date may turn the machine off.
  if (!jobs_.empty()) jobs_.setDateFinished(finished);
}

void QSServiceDaemon::clearRecoveryData() {
  _waitIfSavingQuillsift();
  VariablesLockHolder lock(quillsiftVariablesLock_);
  __clearRecoveryData();
}

void QSServiceDaemon::__clearRecoveryData() {
  // First, since it takes memory: without it nothing is cleared. A queue of its own for every
  // clear: an unmount that blocks holds up nobody else's.
  Platform::current()
      .workQueues->makeSerialQueue(kUnmountQueueLabel, currentQOS())
      ->asyncAfter(kUnmountDelay,
                   [daemon = shared_from_this()] { daemon->unmountRecordedVolumes(); });

  const bool hadSession = sessionUUID_.has_value();
  quillsiftRunning_ = false;
  auto forgotten = jobs_.take();
  sessionUUID_.reset();

  if (hadSession) {
    // Under the lock and waited for: no push of the old session can follow this message, and every
    // client has it in its queue when the clear returns.
    broadcastAndWait([](QSServiceClient& client) { client.quillsiftDataCleared(); });
  }
  // Only now: every push that still held one of these jobs has run.
  releaseLater(std::move(forgotten));
}

bool QSServiceDaemon::_savingQuillsift() const {
  return quillsiftSaveLock_.isHeld();
}

void QSServiceDaemon::_waitIfSavingQuillsift() {
  quillsiftSaveLock_.waitUntilFree();
}

void QSServiceDaemon::_unmountVolumeAtEndOfQuillsiftWithMountPoint(std::string mountPoint) {
  VariablesLockHolder lock(quillsiftVariablesLock_);
  mountPointsMountedByQuillsift_.insert(std::move(mountPoint));
}

void QSServiceDaemon::unmountRecordedVolumes() {
  std::set<std::string> mountPoints;
  {
    VariablesLockHolder lock(quillsiftVariablesLock_);
    // A new session has begun since the clear: it may use these volumes, a later clear sees to
    // them.
    if (!jobs_.empty() || quillsiftRunning_) return;
    mountPoints = mountPointsMountedByQuillsift_;
  }
  logToSystem(kLogInfo,
              "%u seconds since quillsiftd data was cleared, attempting to unmount volumes that "
              "were mounted...",
              static_cast<unsigned>(kUnmountDelay.count()));
  for (const std::string& mountPoint : mountPoints) {
    QSError error;
    if (QSVolumeUtilities::unmountVolumeAtPath(mountPoint, false, &error)) {
      VariablesLockHolder lock(quillsiftVariablesLock_);
      mountPointsMountedByQuillsift_.erase(mountPoint);
    } else {
      logToSystem(kLogWarning, "Failed to unmount volume mounted by quillsift at path: '%s'. %s",
                  mountPoint.c_str(), error.description().c_str());
    }
  }
}

void QSServiceDaemon::_dropInstallerShield() {
  InstallerProgress& progress = *Platform::current().installerProgress;
  if (progress.isShowing()) progress.hide("Quillsift");
}

bool QSServiceDaemon::isCurrentSession(const std::string& uuid) const {
  return sessionUUID_ && sessionUUID_->text() == uuid;
}

}  // namespace quillsift
