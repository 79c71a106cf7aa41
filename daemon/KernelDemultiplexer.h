#pragma once

#include <cstdint>

#include "platform/KernelMessageLayout.h"

namespace quillsift {

// Return codes of the message layer and of the two routines.
inline constexpr std::int32_t kKernelSuccess = 0;
inline constexpr std::int32_t kKernelFailure = 5;
inline constexpr std::int32_t kKernelNotSupported = 46;
inline constexpr std::int32_t kKernelBadIdentifier = -303;
inline constexpr std::int32_t kKernelBadArguments = -304;
inline constexpr std::int32_t kKernelTrailerError = -309;

// What routine 31338 does with an event.
class KernelEventRoutine {
 public:
  virtual ~KernelEventRoutine() = default;

  // The return code of the reply.
  virtual std::int32_t handleEvent(std::int32_t eventCode, const AuditToken& sender) = 0;
};

// What became of a message. There is a reply in every case.
struct KernelMessageResult {
  bool handled = false;  // false: no routine has this identifier
  KernelReply reply{};
};

// Checks one message and hands it to its routine. Safe for any bytes of any length: a field that is
// not there reads as zero, and a sender whose token is not there whole is never the kernel.
KernelMessageResult demultiplexKernelMessage(const KernelMessage& message,
                                             KernelEventRoutine& routine);

}  // namespace quillsift
