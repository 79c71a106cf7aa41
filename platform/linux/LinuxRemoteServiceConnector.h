#pragma once

#include <memory>
#include <string>

#include "platform/RemoteService.h"

namespace quillsift {

// Connects to a service as LinuxServiceConnections offers it.
class LinuxRemoteServiceConnector final : public RemoteServiceConnector {
 public:
  // Waits for the end of the handshake. Beside the errors of the interface: ETIMEDOUT when the
  // service does not answer within ten seconds. EACCES stands for a service that hangs up before
  // the handshake is over, which is all that one that does not admit us ever does.
  std::unique_ptr<RemoteService> connect(const std::string& path, const WireInterface& server,
                                         const WireInterface& notifications,
                                         QSError* error) override;
};

}  // namespace quillsift
