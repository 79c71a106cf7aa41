#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>

#include "platform/linux/KernelEventSocket.h"
#include "tests/platform/linux/PrivateEvents.h"

namespace quillsift {
namespace {

using namespace std::literals;

TEST(KernelEventSocketTest, FindsTheCodeOfAnEvent) {
  const auto code = [](std::string lines) {
    return eventCodeIn("change@/devices/virtual/mem/null\0ACTION=change\0"s + lines + '\0');
  };
  EXPECT_EQ(code("SYNTH_UUID=0\0SYNTH_ARG_QSEVENT=55\0SEQNUM=8"s), 55);
  EXPECT_EQ(code("QSEVENT=55"), 55);
  EXPECT_EQ(code("QSEVENT=-2147483648"), INT32_MIN);
  EXPECT_EQ(code("QSEVENT=1\0SYNTH_ARG_QSEVENT=2"s), 2);
  for (const std::string& none :
       {""s, "QSEVENT"s, "QSEVENT="s, "QSEVENT=5x"s, "QSEVENT= 55"s, "QSEVENT=+55"s,
        "QSEVENT=2147483648"s, "XQSEVENT=55"s, "QSEVENTS=55"s, "SYNTH_ARG_QSEVENT=x\0QSEVENT=55"s,
        "NAME=QSEVENT=55"s}) {
    EXPECT_EQ(code(none), std::nullopt) << none;
  }
  EXPECT_EQ(eventCodeIn("QSEVENT=55\0"s), std::nullopt);  // the device's line
  EXPECT_EQ(eventCodeIn("QSEVENT=55"), std::nullopt);
  EXPECT_EQ(eventCodeIn(""), std::nullopt);
}

TEST(KernelEventSocketTest, AForeignTokenIsNeverTheKernels) {
  const AuditToken token = foreignToken(0, 0, 0);
  EXPECT_TRUE(std::any_of(token.begin(), token.end(), [](auto word) { return word != 0; }));
}

TEST(KernelEventSocketTest, TakesNobodyOnAnotherKindOfSocketForTheKernel) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
  const FileDescriptor ours(ends[0]), theirs(ends[1]);
  ASSERT_TRUE(prepareKernelEvents(ours.get()));
  KernelEventReader reader;
  EXPECT_FALSE(reader.next(ours.get()));
  const std::string text = "change@/x\0QSEVENT=55\0"s;
  ASSERT_GT(::send(theirs.get(), text.data(), text.size(), 0), 0);
  ASSERT_GT(::send(theirs.get(), std::string(20000, 'x').data(), 20000, 0), 0);
  const auto event = reader.next(ours.get());
  ASSERT_TRUE(event);
  EXPECT_EQ(event->text, text);
  EXPECT_NE(event->sender, AuditToken{});
  EXPECT_FALSE(reader.next(ours.get()));  // what does not fit is passed over
}

TEST(KernelEventSocketTest, GoesOnBehindWhatWasLostInABurst) {
  const auto events = PrivateEvents::make();
  if (!events) GTEST_SKIP() << "needs a network of its own";
  constexpr int kBurst = 100000;
  for (int i = 0; i < kBurst; ++i)
    ASSERT_TRUE(events->send(std::to_string(i)));
  KernelEventReader reader;
  int read = 0;
  while (const auto event = reader.next(events->receiver.get())) {
    EXPECT_EQ(eventCodeIn(event->text), read);  // the first ones are those that there was room for
    EXPECT_NE(event->sender, AuditToken{});
    ++read;
  }
  EXPECT_GT(read, 0);
  EXPECT_LT(read, kBurst);
  ASSERT_TRUE(events->send("55"));
  const auto next = reader.next(events->receiver.get());
  ASSERT_TRUE(next);
  EXPECT_EQ(eventCodeIn(next->text), 55);
}

TEST(KernelEventSocketTest, IsToldOfALossBeforeAnythingElse) {
  const auto events = PrivateEvents::make();
  if (!events) GTEST_SKIP() << "needs a network of its own";
  for (int i = 0; i < 10000; ++i)
    ASSERT_TRUE(events->send("1"));
  char byte = 0;
  ASSERT_EQ(::recv(events->receiver.get(), &byte, 1, MSG_DONTWAIT), -1);
  EXPECT_EQ(errno, ENOBUFS);  // what the reader passes over in the other test
}

}  // namespace
}  // namespace quillsift
