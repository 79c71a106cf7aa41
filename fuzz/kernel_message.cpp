// The demultiplexer of the kernel port. Input: the length of the request in one byte, the request,
// and the trailer.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "daemon/KernelDemultiplexer.h"

namespace {

using quillsift::AuditToken;
using quillsift::KernelMessage;

class CountingRoutine : public quillsift::KernelEventRoutine {
 public:
  int calls = 0;

  std::int32_t handleEvent(std::int32_t eventCode, const AuditToken& sender) override {
    (void)eventCode;
    (void)sender;
    ++calls;
    return 0;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillsift::kernelmessage;
  if (size == 0) return 0;
  const std::size_t length = std::min<std::size_t>(data[0], size - 1);
  const std::uint8_t* const behind = data + 1 + length;
  const KernelMessage message = {{data + 1, behind}, {behind, data + size}};
  CountingRoutine routine;
  const auto result = quillsift::demultiplexKernelMessage(message, routine);
  const auto field = [&](std::size_t offset) {
    return quillsift::kernelMessageField(result.reply.data(), result.reply.size(), offset);
  };
  const std::uint32_t identifier = field(kIdentifier) - kReplyIdentifierDistance;
  if (field(kSize) != kLength) std::abort();
  if (result.handled != (identifier == 31337 || identifier == 31338)) std::abort();
  // Only a request of the right length with a whole trailer gets as far as the routine.
  if (routine.calls != (field(kReturnCode) == 0 ? 1 : 0)) std::abort();
  if (routine.calls != 0 && (length != kLength || message.trailer.size() < kTrailerLength)) {
    std::abort();
  }
  return 0;
}
