#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/QSError.h"
#include "platform/ServiceConnections.h"
#include "platform/WireValue.h"

namespace quillsift {

// A client's end of a service connection. One thread.
class RemoteService {
 public:
  using NotificationHandler =
      std::function<void(const std::string& name, const std::vector<WireValue>& arguments)>;

  enum class Wake { event, descriptor, timeout, disconnected };

  virtual ~RemoteService() = default;

  virtual void setNotificationHandler(NotificationHandler handler) = 0;
  // Sends a call and waits for its answer, at most `limit`. Notifications that come in meanwhile
  // are kept for the next processEvents. None and `error` on failure.
  virtual std::optional<std::vector<WireValue>> call(const std::string& method,
                                                     const std::vector<WireValue>& arguments,
                                                     std::chrono::nanoseconds limit,
                                                     QSError* error) = 0;
  // Delivers the notifications at hand, waiting for the first at most `limit`. Comes back early
  // when `wakeDescriptor` (-1: none) can be read.
  virtual Wake processEvents(std::chrono::nanoseconds limit, int wakeDescriptor) = 0;
};

// Makes the client's end of the service connections.
class RemoteServiceConnector {
 public:
  virtual ~RemoteServiceConnector() = default;

  // Connects to the Unix socket at `path`. Null and `error` when nobody listens there (ENOENT,
  // ECONNREFUSED) or the service does not admit this process (EACCES).
  virtual std::unique_ptr<RemoteService> connect(const std::string& path,
                                                 const WireInterface& server,
                                                 const WireInterface& notifications,
                                                 QSError* error) = 0;
};

}  // namespace quillsift
