#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "daemon/protocol/QSJobInfo.h"
#include "platform/ServiceConnections.h"
#include "platform/WorkQueues.h"

namespace quillsift {

class QSServiceDaemon;

// One connected peer: receives its requests and hands them to the daemon, and relays the daemon's
// notifications to it.
//
// Threads: requests arrive on the connection's thread and are carried out on the worker queue of
// that thread's class; notifications and connection events run on clientQueue, which targets the
// service queue. The notification methods return at once and may be called on any thread; what one
// thread issues arrives in that order.
class QSServiceClient : public ServiceRequestHandler,
                        public std::enable_shared_from_this<QSServiceClient> {
 public:
  // Sets the connection up completely and resumes it.
  static std::shared_ptr<QSServiceClient> initWithConnection(
      std::shared_ptr<ServiceConnection> connection,
      const std::shared_ptr<QSServiceDaemon>& serviceDaemon);
  // Invalidates the connection.
  ~QSServiceClient() override;
  QSServiceClient(const QSServiceClient&) = delete;
  QSServiceClient& operator=(const QSServiceClient&) = delete;

  pid_t clientPID() const { return clientPID_; }
  std::int32_t clientAuditIdentifier() const { return clientAuditIdentifier_; }
  uid_t clientUID() const { return clientUID_; }
  // The peer's executable; none when it could not be read.
  const std::optional<std::string>& clientPath() const { return clientPath_; }
  const std::shared_ptr<SerialQueue>& clientQueue() const { return clientQueue_; }

  void handleRequest(ServiceRequest request) override;

  void reportSaveProgress(double progress, std::int64_t saveProgressState, std::string savePath);
  void quillsiftStarted();
  void quillsiftDataCleared();
  void jobStatusChangedWithInfo(const QSJobInfo& info);

  // Whether the client list has let go of this client. Inside the list's monitor only.
  bool removedFromList() const { return removedFromList_; }
  void setRemovedFromList() { removedFromList_ = true; }

 private:
  QSServiceClient(std::shared_ptr<ServiceConnection> connection,
                  const std::shared_ptr<QSServiceDaemon>& serviceDaemon);

  void installHandlers();
  // Carries a request out on `queue`.
  void perform(ServiceRequest request,
               void (*method)(QSServiceDaemon& daemon, const ServiceRequest& request),
               WorkQueue& queue);
  void notify(const char* notification, std::vector<WireValue> arguments);
  void logConnectionEvent(const char* event) const;

  std::atomic<pid_t> clientPID_;
  std::atomic<std::int32_t> clientAuditIdentifier_;
  std::atomic<uid_t> clientUID_;
  const std::shared_ptr<ServiceConnection> connection_;
  const std::weak_ptr<QSServiceDaemon> serviceDaemon_;
  const std::optional<std::string> clientPath_;
  const std::shared_ptr<SerialQueue> clientQueue_;
  bool removedFromList_ = false;
};

}  // namespace quillsift
