#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "client/ServiceError.h"
#include "daemon/protocol/QSJobInfo.h"
#include "platform/QSDate.h"
#include "platform/RemoteService.h"

namespace quillsift {

// The numbers are the protocol's.
enum class SaveState : std::int64_t { started = 0, progress = 1, finished = 2, failed = 3 };

// How some client's save stands; the daemon tells all its clients.
struct SaveReport {
  double progress = 0;  // 0 to 1; -1 when it failed
  SaveState state = SaveState::started;
  std::string path;  // what is being written; what has been written once it is finished
};

// Every job of the daemon's session at one moment.
struct SessionSnapshot {
  std::vector<QSJobInfo> jobs;
  // When the session finished. None while it runs, and when there is none.
  std::optional<QSDate> dateFinished;
};

// Receives what the daemon tells its clients, in the order in which it happened. Called only from
// within QuillsiftService::processEvents.
class ServiceObserver {
 public:
  virtual ~ServiceObserver() = default;

  virtual void sessionStarted() = 0;
  virtual void sessionCleared() = 0;
  virtual void jobChanged(const QSJobInfo& job) = 0;
  virtual void saveReported(const SaveReport& report) = 0;
  // A notification that this client does not know or cannot read.
  virtual void unreadableNotification(const std::string& name) = 0;
};

// The daemon as a client sees it: its four requests with typed arguments and results, its
// notifications as calls of an observer. One thread.
class QuillsiftService {
 public:
  using Wake = RemoteService::Wake;

  // Connects to the daemon's socket. Null and `error` (noDaemon, notAdmitted) on failure.
  static std::unique_ptr<QuillsiftService> connect(RemoteServiceConnector& connector,
                                                   const std::string& socketPath,
                                                   ServiceError* error);
  explicit QuillsiftService(std::unique_ptr<RemoteService> remote);

  // Not owned; none (null) at first. Must outlive its use in processEvents.
  void setObserver(ServiceObserver* observer) { observer_ = observer; }

  // None and `error` on failure. A call that timed out may still be carried out later.
  std::optional<SessionSnapshot> queryJobs(ServiceError* error);
  // Whether a session was started; refused while one runs or while a save is under way.
  std::optional<bool> start(ServiceError* error);
  // Whether the data is cleared; waits for a running save.
  bool clear(ServiceError* error);
  // Whether the save has begun; refused while a session runs, put off while another save runs.
  // `destination` is absolute: the archive to write, or the directory to fill.
  std::optional<bool> save(const std::string& destination, bool shouldArchive,
                           bool collectSensitiveFiles, ServiceError* error);

  // Delivers notifications to the observer; see RemoteService.
  Wake processEvents(std::chrono::nanoseconds limit, int wakeDescriptor);

 private:
  std::optional<std::vector<WireValue>> call(const char* method,
                                             const std::vector<WireValue>& arguments,
                                             std::chrono::nanoseconds limit, ServiceError* error);
  std::optional<bool> callForFlag(const char* method, const std::vector<WireValue>& arguments,
                                  ServiceError* error);
  void notified(const std::string& name, const std::vector<WireValue>& arguments);
  // False when the notification is not one of ours.
  bool deliver(const std::string& name, const std::vector<WireValue>& arguments);

  std::unique_ptr<RemoteService> remote_;
  ServiceObserver* observer_ = nullptr;
};

}  // namespace quillsift
