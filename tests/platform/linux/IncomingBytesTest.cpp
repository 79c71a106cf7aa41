#include <gtest/gtest.h>

#include "platform/linux/IncomingBytes.h"
#include "tests/platform/linux/RawPeer.h"

namespace quillsift::testing {
namespace {

using Cut = IncomingBytes::Cut;
using namespace std::string_literals;

constexpr std::size_t kLine = 20;
constexpr std::size_t kMessage = 1000;

TEST(IncomingBytesTest, CutsLinesAndThenMessages) {
  IncomingBytes incoming(kLine, kMessage);
  const std::string call = RawCall{.member = "clear"}.bytes();
  incoming.append("AUTH\r\nBEGIN\r\n" + call + call.substr(0, 5));
  std::string_view piece;
  ASSERT_EQ(incoming.nextLine(&piece), Cut::piece);
  EXPECT_EQ(piece, "AUTH\r\n");
  ASSERT_EQ(incoming.nextLine(&piece), Cut::piece);
  EXPECT_EQ(piece, "BEGIN\r\n");
  ASSERT_EQ(incoming.nextMessage(&piece), Cut::piece);
  EXPECT_EQ(piece, call);
  EXPECT_EQ(incoming.nextMessage(&piece), Cut::incomplete);
  EXPECT_FALSE(incoming.empty());
  incoming.append(call.substr(5));
  ASSERT_EQ(incoming.nextMessage(&piece), Cut::piece);
  EXPECT_EQ(piece, call);
  EXPECT_TRUE(incoming.empty());
}

TEST(IncomingBytesTest, CutsMessagesThatComeByteByByte) {
  IncomingBytes incoming(kLine, kMessage);
  const std::string call =
      RawCall{.member = "echo", .signature = "s", .body = rawString("hello")}.bytes();
  std::string_view piece;
  for (std::size_t i = 0; i < call.size(); ++i) {
    ASSERT_EQ(incoming.nextMessage(&piece), Cut::incomplete);
    incoming.append(call.substr(i, 1));
  }
  ASSERT_EQ(incoming.nextMessage(&piece), Cut::piece);
  EXPECT_EQ(piece, call);
}

TEST(IncomingBytesTest, KnowsBothByteOrders) {
  IncomingBytes incoming(kLine, kMessage);
  // Body of 4, serial 1, fields of 3 and so of 8.
  const std::string big = "B\1\0\1\0\0\0\4\0\0\0\1\0\0\0\3"s + std::string(12, 'x');
  incoming.append(big);
  std::string_view piece;
  ASSERT_EQ(incoming.nextMessage(&piece), Cut::piece);
  EXPECT_EQ(piece, big);
}

TEST(IncomingBytesTest, RefusesLinesThatAreTooLongBeforeTheirEnd) {
  IncomingBytes incoming(kLine, kMessage);
  std::string_view piece;
  incoming.append(std::string(kLine, 'A'));
  EXPECT_EQ(incoming.nextLine(&piece), Cut::incomplete);
  incoming.append("A");
  EXPECT_EQ(incoming.nextLine(&piece), Cut::tooLong);
  incoming.append("\r\n");
  EXPECT_EQ(incoming.nextLine(&piece), Cut::tooLong);
}

TEST(IncomingBytesTest, TakesTheLongestLineHoweverItComesIn) {
  for (const std::size_t first : {kLine, kLine + 1}) {
    IncomingBytes incoming(kLine, kMessage);
    const std::string line = std::string(kLine, 'A') + "\r\n";
    std::string_view piece;
    incoming.append(line.substr(0, first));
    EXPECT_EQ(incoming.nextLine(&piece), Cut::incomplete) << first;
    incoming.append(line.substr(first));
    ASSERT_EQ(incoming.nextLine(&piece), Cut::piece) << first;
    EXPECT_EQ(piece, line) << first;
  }
}

Cut cutOfHeader(const std::string& header) {
  IncomingBytes incoming(kLine, kMessage);
  incoming.append(header);
  std::string_view piece;
  return incoming.nextMessage(&piece);
}

TEST(IncomingBytesTest, JudgesAMessageByItsFixedHeader) {
  // 16 + 8 + 976 = 1000 bytes, and one more.
  EXPECT_EQ(cutOfHeader("l\1\0\1\xD0\3\0\0\1\0\0\0\1\0\0\0"s), Cut::incomplete);
  EXPECT_EQ(cutOfHeader("l\1\0\1\xD1\3\0\0\1\0\0\0\1\0\0\0"s), Cut::tooLong);
  EXPECT_EQ(cutOfHeader("l\1\0\1\xFF\xFF\xFF\xFF\1\0\0\0\xFF\xFF\xFF\xFF"s), Cut::tooLong);
  EXPECT_EQ(cutOfHeader("x\1\0\1\0\0\0\0\1\0\0\0\1\0\0\0"s), Cut::malformed);
  EXPECT_EQ(cutOfHeader("l\0\0\1\0\0\0\0\1\0\0\0\1\0\0\0"s), Cut::malformed);
  EXPECT_EQ(cutOfHeader("l\1\0\2\0\0\0\0\1\0\0\0\1\0\0\0"s), Cut::malformed);
  EXPECT_EQ(cutOfHeader("l\1\0\1\0\0\0\0\0\0\0\0\1\0\0\0"s), Cut::malformed);
  EXPECT_EQ(cutOfHeader("l\1\0\1\0\0\0\0\1\0\0\0\1\0\0"s), Cut::incomplete);
}

}  // namespace
}  // namespace quillsift::testing
