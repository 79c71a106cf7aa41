#include "daemon/KernelDemultiplexer.h"

#include <algorithm>
#include <optional>
#include <vector>

namespace quillsift {

namespace {

using namespace kernelmessage;

constexpr std::size_t kShortestTrailer = 32;

std::uint32_t field(const std::vector<std::uint8_t>& bytes, std::size_t offset) {
  return kernelMessageField(bytes.data(), bytes.size(), offset);
}

KernelReply replyTo(const std::vector<std::uint8_t>& request) {
  KernelReply reply{};
  setKernelMessageField(reply.data(), kBits, field(request, kBits) & kReplyDispositionMask);
  setKernelMessageField(reply.data(), kSize, kLength);
  setKernelMessageField(reply.data(), kRemotePort, field(request, kRemotePort));
  setKernelMessageField(reply.data(), kIdentifier,
                        field(request, kIdentifier) + kReplyIdentifierDistance);
  std::copy(kLittleEndian.begin(), kLittleEndian.end(), reply.begin() + kDataRepresentation);
  return reply;
}

bool isPlainRequest(const std::vector<std::uint8_t>& request) {
  return (field(request, kBits) & kComplexBit) == 0 && field(request, kSize) == kLength &&
         request.size() == kLength;
}

// None when the trailer does not hold all of it: zeros in its place would make anybody the kernel.
std::optional<AuditToken> auditToken(const std::vector<std::uint8_t>& trailer, std::size_t length) {
  if (length < kTrailerLength) return std::nullopt;
  AuditToken token{};
  for (std::size_t i = 0; i < token.size(); ++i)
    token[i] = field(trailer, kTrailerAuditToken + 4 * i);
  return token;
}

std::int32_t runEventStub(const KernelMessage& message, KernelEventRoutine& routine) {
  if (!isPlainRequest(message.request)) return kKernelBadArguments;
  // A trailer holds no more than was delivered, whatever it says.
  const std::size_t length =
      std::min<std::size_t>(field(message.trailer, kTrailerSize), message.trailer.size());
  if (field(message.trailer, kTrailerType) != 0 || length < kShortestTrailer) {
    return kKernelTrailerError;
  }
  const auto sender = auditToken(message.trailer, length);
  if (!sender) return kKernelFailure;
  return routine.handleEvent(static_cast<std::int32_t>(field(message.request, kArgument)), *sender);
}

std::int32_t runUnsupportedStub(const KernelMessage& message) {
  return isPlainRequest(message.request) ? kKernelNotSupported : kKernelBadArguments;
}

}  // namespace

KernelMessageResult demultiplexKernelMessage(const KernelMessage& message,
                                             KernelEventRoutine& routine) {
  KernelMessageResult result{.handled = true, .reply = replyTo(message.request)};
  std::int32_t code = kKernelBadIdentifier;
  switch (field(message.request, kIdentifier)) {
    case kFirstIdentifier:
      code = runUnsupportedStub(message);
      break;
    case kEventIdentifier:
      code = runEventStub(message, routine);
      break;
    default:
      result.handled = false;
  }
  setKernelMessageField(result.reply.data(), kReturnCode, static_cast<std::uint32_t>(code));
  return result;
}

}  // namespace quillsift
