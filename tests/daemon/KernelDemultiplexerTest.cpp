#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "daemon/KernelDemultiplexer.h"

namespace quillsift {
namespace {

using namespace kernelmessage;
using Bytes = std::vector<std::uint8_t>;

class RecordingRoutine : public KernelEventRoutine {
 public:
  std::vector<std::pair<std::int32_t, AuditToken>> calls;
  std::int32_t result = 0;

  std::int32_t handleEvent(std::int32_t eventCode, const AuditToken& sender) override {
    calls.emplace_back(eventCode, sender);
    return result;
  }
};

KernelMessage eventMessage() {
  return {.request = makeKernelRequest(31338, 55), .trailer = makeKernelTrailer({})};
}

Bytes with(Bytes bytes, std::size_t offset, std::uint32_t value) {
  setKernelMessageField(bytes.data(), offset, value);
  return bytes;
}

Bytes resized(Bytes bytes, std::size_t length) {
  bytes.resize(length);
  return bytes;
}

std::int32_t codeOf(const KernelReply& reply) {
  return static_cast<std::int32_t>(kernelMessageField(reply.data(), reply.size(), kReturnCode));
}

std::uint32_t fieldOf(const KernelReply& reply, std::size_t offset) {
  return kernelMessageField(reply.data(), reply.size(), offset);
}

struct Malformed {
  const char* what;
  KernelMessage message;
  std::int32_t code;
  bool handled = true;
};

std::vector<Malformed> malformedMessages() {
  const Bytes event = makeKernelRequest(31338, 55), other = makeKernelRequest(31337, 55);
  const Bytes trailer = makeKernelTrailer({});
  const auto announced = [&](std::uint32_t size) { return with(trailer, kTrailerSize, size); };
  const auto delivered = [&](std::size_t size) {
    return resized(announced(static_cast<std::uint32_t>(size)), size);
  };
  return {
      {"nothing at all", {{}, {}}, -303, false},
      {"a byte", {{1}, trailer}, -303, false},
      {"a header without its identifier", {resized(event, 20), trailer}, -303, false},
      {"half an identifier", {resized(event, 22), trailer}, -304},
      {"the identifier below", {with(event, kIdentifier, 31336), trailer}, -303, false},
      {"the identifier above", {with(event, kIdentifier, 31339), trailer}, -303, false},
      {"the identifier of a reply", {with(event, kIdentifier, 31438), trailer}, -303, false},
      {"the highest identifier", {with(event, kIdentifier, 0xFFFFFFFF), trailer}, -303, false},
      {"a bad identifier and all else bad",
       {with(resized(with(event, kBits, kComplexBit), 40), kIdentifier, 1), {}},
       -303,
       false},
      {"a complex event", {with(event, kBits, kComplexBit), trailer}, -304},
      {"a complex message of the other routine", {with(other, kBits, 0x80000012), trailer}, -304},
      {"a size too small", {with(event, kSize, 35), trailer}, -304},
      {"a size too large", {with(event, kSize, 37), trailer}, -304},
      {"a size of nothing", {with(other, kSize, 0), trailer}, -304},
      {"an argument cut off", {resized(event, 32), trailer}, -304},
      {"a byte too few", {resized(event, 35), trailer}, -304},
      {"a byte too many", {resized(event, 37), trailer}, -304},
      {"a byte too many, as it says", {with(resized(event, 37), kSize, 37), trailer}, -304},
      {"a trailer in the request", {resized(event, 88), {}}, -304},
      {"a bad size before a bad trailer", {with(event, kSize, 1), {}}, -304},
      {"no trailer", {event, {}}, -309},
      {"a trailer without its size", {event, resized(trailer, 4)}, -309},
      {"a trailer of another type", {event, with(trailer, kTrailerType, 1)}, -309},
      {"a trailer that says 31 bytes", {event, announced(31)}, -309},
      {"a trailer that says none", {event, announced(0)}, -309},
      {"a trailer of 31 bytes", {event, delivered(31)}, -309},
      {"a trailer of 31 bytes that says 52", {event, resized(trailer, 31)}, -309},
      {"a trailer of another type and a foreign sender",
       {event, with(makeKernelTrailer({1}), kTrailerType, 7)},
       -309},
      {"a trailer of 32 bytes", {event, delivered(32)}, 5},
      {"a trailer that says 32 bytes", {event, announced(32)}, 5},
      {"a trailer that says 51 bytes", {event, announced(51)}, 5},
      {"a trailer of 51 bytes", {event, delivered(51)}, 5},
      {"a trailer of 51 bytes that says 52", {event, resized(trailer, 51)}, 5},
  };
}

TEST(KernelDemultiplexerTest, AnswersEveryMalformedMessageWithoutRunningTheRoutine) {
  for (const Malformed& malformed : malformedMessages()) {
    SCOPED_TRACE(malformed.what);
    RecordingRoutine routine;
    const auto result = demultiplexKernelMessage(malformed.message, routine);
    EXPECT_EQ(codeOf(result.reply), malformed.code);
    EXPECT_EQ(result.handled, malformed.handled);
    EXPECT_TRUE(routine.calls.empty());
    EXPECT_EQ(fieldOf(result.reply, kSize), 36U);
  }
}

TEST(KernelDemultiplexerTest, HandsAnEventAndItsSenderToTheRoutine) {
  for (const std::int32_t code : {55, 0, -1, INT32_MIN, INT32_MAX}) {
    RecordingRoutine routine;
    routine.result = 5;
    const AuditToken sender = {1, 2, 3, 4, 5, 6, 7, 0xFFFFFFFF};
    const auto result = demultiplexKernelMessage(
        {makeKernelRequest(31338, code), makeKernelTrailer(sender)}, routine);
    ASSERT_EQ(routine.calls.size(), 1U);
    EXPECT_EQ(routine.calls[0], std::pair(code, sender));
    EXPECT_EQ(codeOf(result.reply), 5);
    EXPECT_TRUE(result.handled);
  }
}

TEST(KernelDemultiplexerTest, TakesALongerTrailer) {
  KernelMessage message = eventMessage();
  message.trailer = with(resized(message.trailer, 68), kTrailerSize, 68);
  RecordingRoutine routine;
  EXPECT_EQ(codeOf(demultiplexKernelMessage(message, routine).reply), 0);
  EXPECT_EQ(routine.calls.size(), 1U);
}

TEST(KernelDemultiplexerTest, SaysThatTheOtherRoutineIsNotSupported) {
  for (const std::int32_t code : {0, 55, -1}) {
    RecordingRoutine routine;
    const auto result = demultiplexKernelMessage({makeKernelRequest(31337, code), {}}, routine);
    EXPECT_EQ(codeOf(result.reply), 46);
    EXPECT_EQ(fieldOf(result.reply, kIdentifier), 31437U);
    EXPECT_TRUE(result.handled);
    EXPECT_TRUE(routine.calls.empty());
  }
}

TEST(KernelDemultiplexerTest, LaysTheReplyOutByteForByte) {
  KernelMessage message = eventMessage();
  message.request = with(message.request, kBits, 0x00001512);
  message.request = with(message.request, kRemotePort, 0x04030201);
  message.request = with(message.request, kLocalPort, 0x11111111);
  message.request = with(message.request, kVoucher, 0x22222222);
  RecordingRoutine routine;
  routine.result = -2;
  const KernelReply expected = {0x12, 0, 0, 0, 36, 0, 0, 0, 1,    2,    3,    4,
                                0,    0, 0, 0, 0,  0, 0, 0, 0xCE, 0x7A, 0,    0,
                                0,    0, 0, 0, 1,  0, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF};
  EXPECT_EQ(demultiplexKernelMessage(message, routine).reply, expected);
}

TEST(KernelDemultiplexerTest, NumbersTheReplyToABadIdentifierToo) {
  RecordingRoutine routine;
  const auto result = demultiplexKernelMessage({makeKernelRequest(0xFFFFFFFF, 0), {}}, routine);
  EXPECT_EQ(fieldOf(result.reply, kIdentifier), 99U);
  EXPECT_TRUE(std::equal(kLittleEndian.begin(), kLittleEndian.end(),
                         result.reply.begin() + kDataRepresentation));
}

}  // namespace
}  // namespace quillsift
