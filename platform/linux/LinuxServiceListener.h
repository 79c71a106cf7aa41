#pragma once

#include <memory>
#include <string>

#include "platform/ServiceConnections.h"
#include "platform/linux/ServiceHub.h"

namespace quillsift {

// Accepts the peers of one service name. Their credentials are taken from the socket at once, and
// nothing is read before the accept handler has agreed.
class LinuxServiceListener final : public ServiceListener {
 public:
  // `path` is where the socket is bound when none was passed under `serviceName`.
  LinuxServiceListener(std::shared_ptr<ServiceHub> hub, std::string serviceName, std::string path);
  // Listens no more; the accept handler does not run any more once this has returned.
  ~LinuxServiceListener() override;

  void setAcceptHandler(AcceptHandler handler) override;
  bool resume(QSError* error) override;

 private:
  class Acceptor;

  const std::shared_ptr<ServiceHub> hub_;
  const std::string serviceName_;
  const std::string path_;
  const std::shared_ptr<Acceptor> acceptor_;
};

}  // namespace quillsift
