#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <limits>

#include "platform/linux/BusMarshalling.h"
#include "platform/linux/BusPointers.h"
#include "tests/platform/linux/IdleBus.h"

namespace quillsift::testing {
namespace {

class BusMarshallingTest : public ::testing::Test {
 protected:
  BusMessagePointer newMessage() { return bus_.newMessage(); }

  static void seal(sd_bus_message* message) { EXPECT_GE(sd_bus_message_seal(message, 1, 0), 0); }

  // The same values after a way through a message.
  std::vector<WireValue> throughMessage(const std::vector<WireArgument>& types,
                                        const std::vector<WireValue>& values) {
    const auto message = newMessage();
    EXPECT_EQ(appendToBusMessage(message.get(), types, values), 0);
    seal(message.get());
    std::vector<WireValue> read;
    EXPECT_EQ(readFromBusMessage(message.get(), types, &read), 0);
    return read;
  }

  int appending(const std::string& type, const WireValue& value) {
    return appendToBusMessage(newMessage().get(), {{"value", type}}, {value});
  }

  IdleBus bus_;
};

TEST_F(BusMarshallingTest, CarriesTheExtremesOfEveryType) {
  const std::vector<WireArgument> types = {
      {"a", "b"},  {"b", "x"},   {"c", "t"},  {"d", "d"},  {"e", "s"},     {"f", "s"},
      {"g", "as"}, {"h", "aat"}, {"i", "ad"}, {"j", "ab"}, {"k", "a{sv}"}, {"l", "aa{sv}"}};
  WireDictionary nested;
  nested.emplace("inner", WireDictionary{{"x", WireValue(false)}});
  const std::vector<WireValue> values = {
      WireValue(false),
      WireValue(std::numeric_limits<std::int64_t>::min()),
      WireValue(std::numeric_limits<std::uint64_t>::max()),
      WireValue(std::numeric_limits<double>::denorm_min()),
      WireValue(""),
      WireValue(std::string(100000, 's')),
      WireValue(WireArray{WireValue("one"), WireValue("")}),
      WireValue(
          WireArray{WireValue(WireArray{}), WireValue(WireArray{WireValue(std::uint64_t{1})})}),
      WireValue(WireArray{}),
      WireValue(WireArray{WireValue(true), WireValue(false)}),
      WireValue(nested),
      WireValue(WireArray{WireValue(nested), WireValue(WireDictionary{})}),
  };
  EXPECT_EQ(throughMessage(types, values), values);
}

TEST_F(BusMarshallingTest, SignaturesAreTheTypesInARow) {
  EXPECT_EQ(busSignature({}), "");
  EXPECT_EQ(busSignature({{"a", "aa{sv}"}, {"b", "ad"}, {"c", "s"}}), "aa{sv}ads");
}

TEST_F(BusMarshallingTest, RefusesValuesOfAnotherTypeThanTheArgument) {
  for (const char* type : {"b", "x", "t", "d", "as", "a{sv}"})
    EXPECT_EQ(appending(type, WireValue("text")), -EINVAL) << type;
  EXPECT_EQ(appending("s", WireValue(std::int64_t{1})), -EINVAL);
  EXPECT_EQ(appending("t", WireValue(std::int64_t{1})), -EINVAL);
  EXPECT_EQ(appending("as", WireValue(WireArray{WireValue(true)})), -EINVAL);
  EXPECT_EQ(appending("i", WireValue(std::int64_t{1})), -EINVAL);
  EXPECT_EQ(appending("", WireValue(true)), -EINVAL);
  EXPECT_EQ(appending("bb", WireValue(true)), -EINVAL);
  EXPECT_EQ(appendToBusMessage(newMessage().get(), {{"a", "b"}}, {}), -EINVAL);
  EXPECT_EQ(appendToBusMessage(newMessage().get(), {}, {WireValue(true)}), -EINVAL);
}

TEST_F(BusMarshallingTest, RefusesAnArrayInsideADictionary) {
  EXPECT_EQ(appending("a{sv}", WireValue(WireDictionary{{"list", WireValue(WireArray{})}})),
            -EINVAL);
}

TEST_F(BusMarshallingTest, RefusesDeepNestingBothWays) {
  WireValue deep{WireDictionary{}};
  for (int i = 1; i < kMaximumWireNesting; ++i)
    deep = WireValue(WireDictionary{{"in", deep}});
  EXPECT_EQ(appending("a{sv}", deep), 0);
  EXPECT_EQ(appending("a{sv}", WireValue(WireDictionary{{"in", deep}})), -EINVAL);

  const auto message = newMessage();
  constexpr int kDepth = kMaximumWireNesting + 1;
  for (int i = 0; i < kDepth; ++i) {
    ASSERT_GE(sd_bus_message_open_container(message.get(), 'a', "{sv}"), 0);
    ASSERT_GE(sd_bus_message_open_container(message.get(), 'e', "sv"), 0);
    ASSERT_GE(sd_bus_message_append(message.get(), "s", "in"), 0);
    ASSERT_GE(sd_bus_message_open_container(message.get(), 'v', i + 1 < kDepth ? "a{sv}" : "b"), 0);
  }
  ASSERT_GE(sd_bus_message_append(message.get(), "b", 1), 0);
  for (int i = 0; i < 3 * kDepth; ++i)
    ASSERT_GE(sd_bus_message_close_container(message.get()), 0);
  seal(message.get());
  std::vector<WireValue> read;
  EXPECT_EQ(readFromBusMessage(message.get(), {{"a", "a{sv}"}}, &read), -EBADMSG);
  EXPECT_TRUE(read.empty());
}

TEST_F(BusMarshallingTest, RefusesMessagesOfOtherTypes) {
  const auto message = newMessage();
  ASSERT_GE(sd_bus_message_append(message.get(), "sb", "text", 1), 0);
  seal(message.get());
  std::vector<WireValue> read;
  EXPECT_EQ(readFromBusMessage(message.get(), {{"a", "s"}}, &read), -EBADMSG);
  EXPECT_EQ(readFromBusMessage(message.get(), {{"a", "b"}, {"b", "s"}}, &read), -EBADMSG);
  EXPECT_EQ(readFromBusMessage(message.get(), {{"a", "s"}, {"b", "b"}, {"c", "b"}}, &read),
            -EBADMSG);
  EXPECT_EQ(readFromBusMessage(message.get(), {}, &read), -EBADMSG);
  EXPECT_TRUE(read.empty());
  EXPECT_EQ(readFromBusMessage(message.get(), {{"a", "s"}, {"b", "b"}}, &read), 0);
  EXPECT_EQ(read, (std::vector<WireValue>{WireValue("text"), WireValue(true)}));
}

TEST_F(BusMarshallingTest, RefusesVariantsOfTypesItDoesNotKnow) {
  for (const char* type : {"i", "y", "o", "as", "(ss)", "v"}) {
    const auto message = newMessage();
    ASSERT_GE(sd_bus_message_open_container(message.get(), 'a', "{sv}"), 0);
    ASSERT_GE(sd_bus_message_open_container(message.get(), 'e', "sv"), 0);
    ASSERT_GE(sd_bus_message_append(message.get(), "s", "key"), 0);
    ASSERT_GE(sd_bus_message_open_container(message.get(), 'v', type), 0);
    switch (type[0]) {
      case 'i':
        sd_bus_message_append(message.get(), "i", 5);
        break;
      case 'y':
        sd_bus_message_append(message.get(), "y", 5);
        break;
      case 'o':
        sd_bus_message_append(message.get(), "o", "/a");
        break;
      case 'a':
        sd_bus_message_append(message.get(), "as", 1, "x");
        break;
      case '(':
        sd_bus_message_append(message.get(), "(ss)", "x", "y");
        break;
      default:
        sd_bus_message_append(message.get(), "v", "b", 1);
    }
    for (int i = 0; i < 3; ++i)
      ASSERT_GE(sd_bus_message_close_container(message.get()), 0) << type;
    seal(message.get());
    std::vector<WireValue> read;
    EXPECT_EQ(readFromBusMessage(message.get(), {{"a", "a{sv}"}}, &read), -EBADMSG) << type;
  }
}

TEST_F(BusMarshallingTest, TextThatIsNotUTF8IsRepairedAndEndsAtItsFirstNul) {
  using namespace std::string_literals;
  const std::vector<WireArgument> types = {{"a", "s"}, {"b", "s"}, {"c", "a{sv}"}};
  const auto read =
      throughMessage(types, {WireValue("a\xFFz"), WireValue("ab\0cd"s),
                             WireValue(WireDictionary{{"k\xFE", WireValue("\xC3")}})});
  ASSERT_EQ(read.size(), 3U);
  EXPECT_EQ(read[0], WireValue("a\xEF\xBF\xBDz"));
  EXPECT_EQ(read[1], WireValue("ab"));
  EXPECT_EQ(read[2], WireValue(WireDictionary{{"k\xEF\xBF\xBD", WireValue("\xEF\xBF\xBD")}}));
}

TEST_F(BusMarshallingTest, HeldBytesGrowWithTheContents) {
  const std::vector<WireValue> none;
  EXPECT_EQ(heldBytes(none), 0U);
  const std::vector<WireValue> text = {WireValue(std::string(10000, 'x'))};
  EXPECT_GE(heldBytes(text), 10000U);
  EXPECT_LE(heldBytes(text), 10200U);
  WireArray records;
  for (int i = 0; i < 100; ++i)
    records.emplace_back(WireDictionary{{"QSJobInfoStatus", WireValue(std::int64_t{i})}});
  const std::vector<WireValue> list = {WireValue(records)};
  EXPECT_GE(heldBytes(list), 100U * (sizeof(WireValue) + sizeof(WireDictionary::Entry)));
  EXPECT_LE(heldBytes(list), 100U * 512);
}

}  // namespace
}  // namespace quillsift::testing
