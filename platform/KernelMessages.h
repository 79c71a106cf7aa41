#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "platform/KernelMessageLayout.h"
#include "platform/WorkQueues.h"

namespace quillsift {

// The receive side of a named port. Dropping it gives it back; a message that is being handled is
// handled to its end.
class KernelPort {
 public:
  using Handler = std::function<KernelReply(const KernelMessage& message)>;

  virtual ~KernelPort() = default;

  // How many messages may wait while one is handled. 0 or an errno value. Before resume.
  virtual int setQueueLimit(std::size_t messages) = 0;
  // From here on the handler runs for every message, one at a time, as tasks of `queue`, and what
  // it returns goes back to the sender if that one can be answered. Once. 0 or an errno value.
  virtual int resume(std::shared_ptr<SerialQueue> queue, Handler handler) = 0;
};

// Messages that the kernel sends to the daemon.
class KernelMessages {
 public:
  virtual ~KernelMessages() = default;

  // The receive side of a port by its name. Null, with an errno value in `code`, when it cannot be
  // had (ENOSYS where the host has no such source).
  virtual std::unique_ptr<KernelPort> checkIn(const std::string& portName, int* code) = 0;
};

}  // namespace quillsift
