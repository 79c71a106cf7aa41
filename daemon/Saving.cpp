// Saves: taking the save lock, handing over to a writer, clearing what was saved.

#include <utility>

#include "daemon/QSServiceClient.h"
#include "daemon/QSServiceDaemon.h"
#include "host/QSDaemonUtils.h"
#include "host/QSLog.h"
#include "host/QSUtilities.h"
#include "host/QSVolumeUtilities.h"
#include "jobs/QSTime.h"
#include "platform/Text.h"
#include "save/ArchiveWriter.h"
#include "save/DirectoryWriter.h"
#include "save/SaveHost.h"

namespace quillsift {

// Gives the save lock, which somebody else took, back at the end of a scope, or before.
class QSServiceDaemon::SaveLockRelease {
 public:
  explicit SaveLockRelease(SaveLock& lock) : lock_(&lock) {}
  ~SaveLockRelease() { now(); }
  SaveLockRelease(const SaveLockRelease&) = delete;
  SaveLockRelease& operator=(const SaveLockRelease&) = delete;

  void now() {
    if (lock_ != nullptr) std::exchange(lock_, nullptr)->unlock();
  }

 private:
  SaveLock* lock_;
};

// What a writer sees of the daemon during one save.
class QSServiceDaemon::SaveOperation : public SaveHost {
 public:
  SaveOperation(QSServiceDaemon& daemon, bool reportProgress, bool takeVariablesLock)
      : daemon_(daemon), reportProgress_(reportProgress), takeVariablesLock_(takeVariablesLock) {}

  std::vector<std::shared_ptr<QSJob>> copyJobs() override {
    if (!takeVariablesLock_) return copyWithLockHeld();
    VariablesLockHolder lock(daemon_.quillsiftVariablesLock_);
    return copyWithLockHeld();
  }

  void reportSaveProgress(double progress, SaveProgressState state,
                          const std::string& path) override {
    if (!reportProgress_) return;
    daemon_.broadcast([progress, state, path](QSServiceClient& client) {
      client.reportSaveProgress(progress, static_cast<std::int64_t>(state), path);
    });
  }

 private:
  // Held here, or by the caller of the whole save.
  std::vector<std::shared_ptr<QSJob>> copyWithLockHeld() QS_NO_ANALYSIS {
    return daemon_.jobs_.jobs();
  }

  QSServiceDaemon& daemon_;
  const bool reportProgress_;
  const bool takeVariablesLock_;
};

void QSServiceDaemon::saveQuillsiftToDestination(
    const std::string& destination, bool shouldArchive, bool collectSensitiveFiles,
    const std::function<void(bool)>& savingStartedHandler) {
  for (;;) {
    VariablesLockHolder lock(quillsiftVariablesLock_);
    if (quillsiftRunning_) {
      if (savingStartedHandler) savingStartedHandler(false);
      return;
    }
    auto session = sessionUUID_;  // takes memory: not with the save lock held
    if (quillsiftSaveLock_.try_lock()) {
      sessionToSave_ = std::move(session);
      break;
    }
    // Another save runs and needs the variables lock to copy the jobs: wait for it without.
    lock.unlock();
    quillsiftSaveLock_.waitUntilFree();
  }
  try {
    if (savingStartedHandler) savingStartedHandler(true);
  } catch (...) {
    quillsiftSaveLock_.unlock();
    throw;
  }
  if (shouldArchive) {
    _saveArchivedQuillsiftToDestination(destination, true, true, collectSensitiveFiles, true);
  } else {
    _saveNonArchivedQuillsiftToDestination(destination, true, true, collectSensitiveFiles, true);
  }
}

void QSServiceDaemon::_saveArchivedQuillsiftToDestination(const std::string& destination,
                                                          bool reportProgress,
                                                          bool clearRecoveryDataOnFinish,
                                                          bool collectSensitiveFiles,
                                                          bool takeVariablesLock) {
  SaveLockRelease release(quillsiftSaveLock_);
  SaveOperation operation(*this, reportProgress, takeVariablesLock);
  const bool saved = writeArchive(destination, collectSensitiveFiles, operation);
  if (saved && clearRecoveryDataOnFinish) clearAfterSave(release);
}

void QSServiceDaemon::_saveNonArchivedQuillsiftToDestination(const std::string& destination,
                                                             bool reportProgress,
                                                             bool clearRecoveryDataOnFinish,
                                                             bool collectSensitiveFiles,
                                                             bool takeVariablesLock) {
  SaveLockRelease release(quillsiftSaveLock_);
  SaveOperation operation(*this, reportProgress, takeVariablesLock);
  const bool saved = writeDirectory(destination, collectSensitiveFiles, operation);
  if (saved && clearRecoveryDataOnFinish) clearAfterSave(release);
}

// Still under the save lock, so that a save which waits for this one finds an empty session and a
// start cannot slip in between. The lock is free before anybody who hears of the clear can start.
void QSServiceDaemon::clearAfterSave(SaveLockRelease& release) {
  VariablesLockHolder lock(quillsiftVariablesLock_);
  const bool newSession = sessionUUID_ && sessionUUID_ != sessionToSave_;
  if (!newSession) __clearRecoveryData();
  release.now();
}

void QSServiceDaemon::_autoSaveQuillsiftIfApplicable(VariablesLockHolder& held) QS_NO_ANALYSIS {
  const auto volume = QSDaemonUtils::AutoSaveVolumeUUID();
  if (!volume) return;
  QSLog(kLogInfo, 1, "Attempting to autosave quillsift archive to volume uuid: '%s'.",
        volume->c_str());
  const auto mountPoint = QSVolumeUtilities::mountPointForVellumVolumeUUID(*volume, true, nullptr);
  if (!mountPoint) {
    QSLog(kLogError, 1,
          "Failed to autosave archive. There is no mountpoint for the volume uuid: '%s'.",
          volume->c_str());
    return;
  }
  const std::string path =
      joinedPath(*mountPoint, QSUtilities::ArchiveNameGivenDate(currentDate(), false));
  QSLog(kLogInfo, 1, "Autosaving quillsift archive to path: '%s'.", path.c_str());
  while (!quillsiftSaveLock_.try_lock()) {
    // Only after a clear can a save run now; it needs the variables lock to get on.
    held.unlock();
    quillsiftSaveLock_.waitUntilFree();
    held.lock();
  }
  _saveArchivedQuillsiftToDestination(path, false, false, true, false);
}

}  // namespace quillsift
