#pragma once

#include <memory>
#include <utility>

#include "daemon/KernelDemultiplexer.h"
#include "platform/KernelMessages.h"

namespace quillsift {

class QSServiceDaemon;

inline constexpr const char* kKernelPortName = "io.vantor.quillsiftd.kernel";

// What the daemon does when the kernel tells of an event: code 55 starts a session unless one runs,
// says by a flash of the display whether it did, and opens the front end. Blocks for the length of
// the flash.
class KernelEvents : public KernelEventRoutine {
 public:
  explicit KernelEvents(std::shared_ptr<QSServiceDaemon> daemon);

  std::int32_t handleEvent(std::int32_t eventCode, const AuditToken& sender) override;

 private:
  bool startSession();

  const std::shared_ptr<QSServiceDaemon> daemon_;
};

// The port open and its messages handled, for as long as this lives.
class KernelEventPort {
 public:
  // Null, with the first failing code (an errno value) in `code`, when the port cannot be had.
  // Nothing is logged then, nor about any message.
  static std::unique_ptr<KernelEventPort> open(const std::shared_ptr<QSServiceDaemon>& daemon,
                                               int* code);

 private:
  explicit KernelEventPort(std::unique_ptr<KernelPort> port) : port_(std::move(port)) {}

  const std::unique_ptr<KernelPort> port_;
};

}  // namespace quillsift
