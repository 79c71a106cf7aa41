#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "collect/CollectionHost.h"
#include "collect/CollectionRunner.h"
#include "daemon/ClientList.h"
#include "daemon/SaveLock.h"
#include "daemon/SessionJobs.h"
#include "daemon/VariablesLock.h"
#include "daemon/protocol/QSJobInfo.h"
#include "jobs/QSJob.h"
#include "platform/QSDate.h"
#include "platform/QSUUID.h"
#include "platform/ServiceConnections.h"
#include "platform/WorkQueues.h"

namespace quillsift {

class QSServiceClient;

// The one daemon object: the session, its jobs, the connected clients and the saves.
//
// Queues:
// - serviceQueue (serial, user-initiated): every broadcast; each client's queue targets it. Its
//   tasks touch the client snapshot, job fields and outgoing messages, and take no lock of ours.
// - runQueue (serial, utility): the body of a session, one at a time, and the autosave.
// - worker queues: client requests but questions, jobs, saves.
// - the prompt queue: questions, and nothing that waits.
//
// Locks: quillsiftVariablesLock guards what is annotated so; quillsiftSaveLock is held for the
// whole of a save. Blocking order: save lock, then variables lock. With the variables lock held the
// save lock is only tried (see SaveLock).
//
// Unless said otherwise a method may be called on any thread but those of serviceQueue, holding no
// lock.
class QSServiceDaemon : public CollectionHost,
                        public std::enable_shared_from_this<QSServiceDaemon> {
 public:
  static std::shared_ptr<QSServiceDaemon> init(CollectionRunner runner = CollectionRunner());
  QSServiceDaemon(const QSServiceDaemon&) = delete;
  QSServiceDaemon& operator=(const QSServiceDaemon&) = delete;

  // --- Listener and clients ---

  // From here on clients can connect. False and `error` when the endpoint cannot be had.
  bool startListening(QSError* error);
  // On the listener's thread: true keeps the connection.
  bool listenerShouldAcceptNewConnection(const std::shared_ptr<ServiceConnection>& newConnection);
  // On the client's queue.
  void clientInvalidated(const std::shared_ptr<QSServiceClient>& client);
  const ClientList& clients() const { return clients_; }
  const std::shared_ptr<SerialQueue>& serviceQueue() const { return serviceQueue_; }
  const std::shared_ptr<SerialQueue>& runQueue() const { return runQueue_; }

  // --- Session ---

  // Starts a session unless one runs or a save is under way; `refused` (may be null) tells. Waits
  // for a save that began meanwhile. The previous session's data go.
  void takeQuillsift(bool* refused);
  bool currentlyTakingQuillsift();
  // Forgets the session's data, after a running save. The body of a running session goes on to its
  // end; what it still collects is thrown away.
  void clearRecoveryData();
  // How every job stands, in the order in which they started, and the end of the last session; both
  // of one moment.
  std::vector<QSJobInfo> getCurrentJobInfosWithDate(std::optional<QSDate>* date);

  // --- Jobs (CollectionHost) ---

  void _runJobAtPath(std::string path, std::vector<std::string> arguments,
                     std::string relativeFilePath, bool sensitive, QOSClass qos,
                     std::shared_ptr<WorkGroup> group, std::string uuid) override;
  void _runJob(WorkBlock work, std::string relativeFilePath, bool sensitive, QOSClass qos,
               std::shared_ptr<WorkGroup> group, std::string uuid) override;
  void _runJobCollectingFileAtPath(std::string path, std::string relativeFilePath, bool sensitive,
                                   QOSClass qos, std::shared_ptr<WorkGroup> group,
                                   std::string uuid) override;
  // What the three above come down to. Throws std::logic_error unless exactly one of path and work
  // block is given. (The double underscore marks the innermost of a family, here and below; the
  // names are older than this file.)
  void __runJobAtPath(std::optional<std::string> path, std::vector<std::string> arguments,
                      WorkBlock workBlock, std::string relativeFilePath, bool sensitive,
                      QOSClass qos, const std::shared_ptr<WorkGroup>& group, std::string uuid);

  void _unmountVolumeAtEndOfQuillsiftWithMountPoint(std::string mountPoint) override;
  void announceSessionStarted() override;
  void endSession(const std::function<void()>& afterStop) override;
  void _dropInstallerShield() override;

  // --- Saves ---

  // Saves the session as an archive or a directory tree and clears it on success. The handler (may
  // be empty) hears false at once when a session runs, else true before any data is written. Comes
  // back when the save has ended; its outcome goes to the clients. The handler must not call
  // the daemon; what it throws comes out of here, with nothing saved.
  void saveQuillsiftToDestination(const std::string& destination, bool shouldArchive,
                                  bool collectSensitiveFiles,
                                  const std::function<void(bool)>& savingStartedHandler);

  // --- The session variables, for tests and for those above ---

  std::optional<QSDate> lastDiagnoseFinishedDate();
  void setLastDiagnoseFinishedDate(std::optional<QSDate> date);
  std::set<std::string> mountPointsMountedByQuillsift();
  SaveLock& quillsiftSaveLock() { return quillsiftSaveLock_; }

 private:
  class SaveOperation;
  class SaveLockRelease;

  explicit QSServiceDaemon(CollectionRunner runner);

  using ClientMessage = std::function<void(QSServiceClient& client)>;
  // Sends to every client in list order, in one task on serviceQueue.
  void broadcast(ClientMessage message);
  void broadcastAndWait(const ClientMessage& message);

  void __quillsiftBeginWithSessionUUID(const QSUUID& sessionUUID);
  void runSession(const QSUUID& sessionUUID);
  void __clearRecoveryData() QS_REQUIRES(quillsiftVariablesLock_);
  bool _savingQuillsift() const;
  void _waitIfSavingQuillsift();
  void unmountRecordedVolumes();
  bool isCurrentSession(const std::string& uuid) const QS_REQUIRES(quillsiftVariablesLock_);

  void runJobBody(const std::shared_ptr<QSJob>& job, const std::string& uuid);
  void pushJob(const std::shared_ptr<QSJob>& job);

  // Each gives the save lock, held by the caller, back on every path.
  void _saveArchivedQuillsiftToDestination(const std::string& destination, bool reportProgress,
                                           bool clearRecoveryDataOnFinish,
                                           bool collectSensitiveFiles, bool takeVariablesLock);
  void _saveNonArchivedQuillsiftToDestination(const std::string& destination, bool reportProgress,
                                              bool clearRecoveryDataOnFinish,
                                              bool collectSensitiveFiles, bool takeVariablesLock);
  void clearAfterSave(SaveLockRelease& release);
  void _autoSaveQuillsiftIfApplicable(VariablesLockHolder& held)
      QS_REQUIRES(quillsiftVariablesLock_);

  const CollectionRunner runner_;
  const std::shared_ptr<SerialQueue> serviceQueue_;
  const std::shared_ptr<SerialQueue> runQueue_;
  std::unique_ptr<ServiceListener> listener_;
  ClientList clients_;
  SaveLock quillsiftSaveLock_;

  VariablesLock quillsiftVariablesLock_;
  bool quillsiftRunning_ QS_GUARDED_BY(quillsiftVariablesLock_) = false;
  std::optional<QSUUID> sessionUUID_ QS_GUARDED_BY(quillsiftVariablesLock_);
  // That of the moment when the last save that a client asked for was accepted.
  std::optional<QSUUID> sessionToSave_ QS_GUARDED_BY(quillsiftVariablesLock_);
  std::set<std::string> mountPointsMountedByQuillsift_ QS_GUARDED_BY(quillsiftVariablesLock_);
  SessionJobs jobs_;  // changed only under the lock, read without
};

}  // namespace quillsift
