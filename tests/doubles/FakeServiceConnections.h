#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Mutex.h"
#include "platform/ServiceConnections.h"

namespace quillsift {

// Who connects.
struct FakePeer {
  pid_t processIdentifier = 4242;
  std::int32_t auditSessionIdentifier = 7;
  uid_t effectiveUserIdentifier = 0;
  std::map<std::string, bool> entitlements{};  // absent: nothing is known
};

// A connection whose peer is the test. The daemon's side and the peer's side from any thread; the
// thread that calls request or a fire... function is the connection's own for that call.
class FakeServiceConnection : public ServiceConnection,
                              public std::enable_shared_from_this<FakeServiceConnection> {
 public:
  // What the peer received, replies and notifications in one order.
  struct Received {
    bool isReply;
    std::string name;  // of the notification, or of the method that is answered
    std::vector<WireValue> arguments;
    std::size_t request;  // the number that request gave, for a reply
  };

  explicit FakeServiceConnection(FakePeer peer);

  // The peer's side.

  // Delivers a call and returns its number. One that the exported interface does not have, whose
  // arguments do not fit, or that comes before resume, is a mistake of the test and aborts. After
  // the invalidation, and when the handler has gone, nothing is delivered.
  std::size_t request(const std::string& method, std::vector<WireValue> arguments,
                      bool wantsReply = true);
  std::vector<Received> received() const;
  // The answer to a request; none as long as there is none.
  std::optional<std::vector<WireValue>> reply(std::size_t request) const;
  // The arguments of all notifications of a name, in order.
  std::vector<std::vector<WireValue>> notifications(const std::string& name) const;
  // Until at least `count` messages have been received. Ends the process after a minute.
  void waitForReceived(std::size_t count) const;

  void fireInterruption();
  // The peer has gone, or an invalidate of the daemon takes effect. Once; later calls do nothing.
  void fireInvalidation();
  void fireSendError();
  // Notifications are dropped from here on, as when no room is left for them.
  void failSends(bool fail);

  bool isResumed() const;
  bool isInvalidated() const;  // invalidate was called, or fireInvalidation
  std::size_t requestsInFlight() const;
  const WireInterface& exportedInterface() const { return exported_; }
  const WireInterface& remoteInterface() const { return remote_; }

  // The daemon's side. A notification that the remote interface does not have, or whose arguments
  // do not fit, aborts, as does a second reply to one request.

  pid_t processIdentifier() const override { return peer_.processIdentifier; }
  std::int32_t auditSessionIdentifier() const override { return peer_.auditSessionIdentifier; }
  uid_t effectiveUserIdentifier() const override { return peer_.effectiveUserIdentifier; }
  std::optional<bool> valueForEntitlement(const std::string& name) const override;
  void setExportedInterface(const WireInterface& interface,
                            std::weak_ptr<ServiceRequestHandler> handler) override;
  void setRemoteInterface(const WireInterface& interface) override;
  void setInterruptionHandler(std::function<void()> handler) override;
  void setInvalidationHandler(std::function<void()> handler) override;
  void setSendErrorHandler(std::function<void()> handler) override;
  void resume() override;
  void send(const std::string& notification, std::vector<WireValue> arguments) override;
  // The invalidation handler follows with fireInvalidation.
  void invalidate() override;

 private:
  void receive(Received message);
  std::function<void(std::vector<WireValue>)> replyFunction(const WireMessage& message,
                                                            std::size_t request);
  void requireNotResumed(const char* call) const;

  const FakePeer peer_;
  // Fixed once it is resumed.
  WireInterface exported_;
  WireInterface remote_;
  std::weak_ptr<ServiceRequestHandler> handler_;
  std::function<void()> interruptionHandler_;
  std::function<void()> sendErrorHandler_;

  mutable Mutex mutex_;
  mutable ConditionVariable changed_;
  std::function<void()> invalidationHandler_ QS_GUARDED_BY(mutex_);
  bool resumed_ QS_GUARDED_BY(mutex_) = false;
  bool invalidated_ QS_GUARDED_BY(mutex_) = false;
  bool gone_ QS_GUARDED_BY(mutex_) = false;  // the invalidation handler has been called
  bool failSends_ QS_GUARDED_BY(mutex_) = false;
  std::size_t requests_ QS_GUARDED_BY(mutex_) = 0;
  std::vector<Received> received_ QS_GUARDED_BY(mutex_);
  const std::shared_ptr<int> inFlight_ = std::make_shared<int>(0);
};

// Listeners that the test connects to.
class FakeServiceConnections : public ServiceConnections {
 public:
  struct Admission {
    std::shared_ptr<FakeServiceConnection> connection;  // null: nobody listens
    bool accepted = false;
  };

  std::unique_ptr<ServiceListener> makeListener(const std::string& serviceName) override;
  // One of the installed work queues.
  std::shared_ptr<SerialQueue> makeQueue(const std::string& label, QOSClass qos) override;

  Admission connect(const std::string& serviceName, FakePeer peer);
  // Resuming a listener fails with this error.
  void failResume(QSError error);
  std::vector<std::string> serviceNames() const;  // asked for so far

 private:
  class Listener;
  struct Endpoint {
    ServiceListener::AcceptHandler accept;
    bool resumed = false;
  };

  mutable Mutex mutex_;
  std::map<std::string, std::shared_ptr<Endpoint>> endpoints_ QS_GUARDED_BY(mutex_);
  std::vector<std::string> serviceNames_ QS_GUARDED_BY(mutex_);
  std::optional<QSError> resumeError_ QS_GUARDED_BY(mutex_);
};

}  // namespace quillsift
