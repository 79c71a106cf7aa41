#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/ServiceConnections.h"
#include "platform/linux/ServiceConnectionSettings.h"

namespace quillsift {

class LinuxWorkQueues;
class ServiceHub;

// Service connections over Unix stream sockets that speak the D-Bus protocol, peer to peer: no
// message bus is needed. One thread, made when the first listener is resumed, listens and serves
// every connection; all handlers run on it. See docs/endpoint.md.
class LinuxServiceConnections final : public ServiceConnections {
 public:
  // `socketPath` is where a listener's socket is bound when the service manager has passed none;
  // none: /run/<service name>/socket. `workQueues` must outlive this.
  explicit LinuxServiceConnections(LinuxWorkQueues& workQueues,
                                   std::optional<std::string> socketPath = std::nullopt,
                                   ServiceConnectionSettings settings = {});
  // Ends every listener and every connection; their handlers have run when this returns. Not on the
  // service thread.
  ~LinuxServiceConnections() override;

  std::unique_ptr<ServiceListener> makeListener(const std::string& serviceName) override;
  // Runs on the service thread while there is one.
  std::shared_ptr<SerialQueue> makeQueue(const std::string& label, QOSClass qos) override;

 private:
  LinuxWorkQueues& workQueues_;
  const std::optional<std::string> socketPath_;
  const std::shared_ptr<ServiceHub> hub_;
};

}  // namespace quillsift
