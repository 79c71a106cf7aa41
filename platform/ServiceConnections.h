#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/QSError.h"
#include "platform/WireValue.h"
#include "platform/WorkQueues.h"

namespace quillsift {

// Types are D-Bus signatures: b, x, t, d, s, and arrays of them; a{sv} is a WireDictionary.
struct WireArgument {
  std::string name;
  std::string type;
};

struct WireMessage {
  std::string name;
  std::vector<WireArgument> arguments;
  std::vector<WireArgument> results;
};

// What one side of a connection can be asked or told. Methods are answered, notifications are not.
struct WireInterface {
  std::string name;
  std::vector<WireMessage> messages;
};

// One call of the peer, already checked against the exported interface.
struct ServiceRequest {
  std::string method;
  std::vector<WireValue> arguments;
  // Queues the answer and returns at once, from any thread; to be called at most once, also for a
  // method without results: a request that is let go unanswered has failed. Empty when the peer
  // wants none. Answering after the connection has gone is harmless.
  std::function<void(std::vector<WireValue> results)> reply;
  // The request counts against the connection's limit of open requests as long as this lives: keep
  // it until the work is done.
  std::shared_ptr<void> inFlight;
};

// Receives the requests of one connection.
class ServiceRequestHandler {
 public:
  virtual ~ServiceRequestHandler() = default;

  // On the connection's own thread; must return at once.
  virtual void handleRequest(ServiceRequest request) = 0;
};

// One accepted peer. Nothing of it is read before resume. What an implementation promises:
// - the identity is what the kernel stamped when the peer connected;
// - send and reply never block; each direction keeps its order; a peer that does not read is
//   invalidated once a named bound of queued bytes is passed;
// - malformed bytes end this connection and nothing else;
// - handlers run on the connection's own thread; after the invalidation handler none runs any more;
// - it holds its request handler weakly, and tearing it down is asynchronous.
class ServiceConnection {
 public:
  virtual ~ServiceConnection() = default;

  virtual pid_t processIdentifier() const = 0;
  virtual std::int32_t auditSessionIdentifier() const = 0;
  virtual uid_t effectiveUserIdentifier() const = 0;
  // Whether the peer holds a named boolean capability; none when nothing is known about it.
  virtual std::optional<bool> valueForEntitlement(const std::string& name) const = 0;

  // The five below before resume only.
  virtual void setExportedInterface(const WireInterface& interface,
                                    std::weak_ptr<ServiceRequestHandler> handler) = 0;
  virtual void setRemoteInterface(const WireInterface& interface) = 0;
  // The transport broke in the middle of a message; the invalidation handler follows.
  virtual void setInterruptionHandler(std::function<void()> handler) = 0;
  // The connection is gone for good. Called exactly once for a resumed connection.
  virtual void setInvalidationHandler(std::function<void()> handler) = 0;
  // A notification could not be queued.
  virtual void setSendErrorHandler(std::function<void()> handler) = 0;

  virtual void resume() = 0;
  // Queues a notification of the remote interface. Any thread.
  virtual void send(const std::string& notification, std::vector<WireValue> arguments) = 0;
  // Any thread, also a handler of this connection; a second call does nothing.
  virtual void invalidate() = 0;
};

class ServiceListener {
 public:
  // Decides about a new peer, on the listener's thread. True keeps the connection, which the
  // handler has then resumed; false drops it with nothing read or written.
  using AcceptHandler = std::function<bool(std::shared_ptr<ServiceConnection>)>;

  virtual ~ServiceListener() = default;

  virtual void setAcceptHandler(AcceptHandler handler) = 0;
  // From here on peers can connect. False and `error` when the endpoint cannot be had.
  virtual bool resume(QSError* error) = 0;
};

class ServiceConnections {
 public:
  virtual ~ServiceConnections() = default;

  // The endpoint of a service name: the socket that the service manager passed under that name,
  // else one bound here.
  virtual std::unique_ptr<ServiceListener> makeListener(const std::string& serviceName) = 0;
  // A serial queue for those who tell peers something: what its tasks send needs no other thread to
  // get on its way. It shares a thread with the connections, so its tasks must return at once.
  virtual std::shared_ptr<SerialQueue> makeQueue(const std::string& label, QOSClass qos) = 0;
};

}  // namespace quillsift
