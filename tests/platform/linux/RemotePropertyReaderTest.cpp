#include <gtest/gtest.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdint>
#include <limits>
#include <string>
#include <variant>

#include "platform/linux/BusPointers.h"
#include "platform/linux/RemotePropertyReader.h"
#include "tests/platform/linux/IdleBus.h"

namespace quillsift {
namespace {

class RemotePropertyReaderTest : public testing::Test {
 protected:
  // Appends, as the library's function of this name does, and reads.
  template <typename... Values>
  int read(const char* types, Values... values) {
    EXPECT_GE(sd_bus_message_append(message(), types, values...), 0);
    return readMessage();
  }
  int readMessage() {
    EXPECT_GE(sd_bus_message_seal(message(), 1, 0), 0);
    return readRemoteProperties(message(), &properties_);
  }
  sd_bus_message* message() { return message_.get(); }
  template <typename Value>
  const Value& value(const std::string& name) {
    return std::get<Value>(properties_.at(name).value);
  }

  IdleBus bus_;
  BusMessagePointer message_ = bus_.newMessage();
  SystemValue::Dictionary properties_;
};

TEST_F(RemotePropertyReaderTest, ReadsEveryTypeThatAValueHas) {
  ASSERT_EQ(read("a{sv}", 13, "b", "b", 1, "y", "y", 255, "n", "n", -32768, "q", "q", 65535, "i",
                 "i", std::numeric_limits<std::int32_t>::min(), "u", "u",
                 std::numeric_limits<std::uint32_t>::max(), "x", "x",
                 std::numeric_limits<std::int64_t>::min(), "t", "t",
                 std::numeric_limits<std::uint64_t>::max(), "d", "d", 0.5, "s", "s", "text", "o",
                 "o", "/a", "g", "g", "a{sv}", "v", "v", "s", "inner"),
            0);
  EXPECT_EQ(properties_.size(), 13U);
  EXPECT_EQ(value<bool>("b"), true);
  EXPECT_EQ(value<std::uint64_t>("y"), 255U);
  EXPECT_EQ(value<std::int64_t>("n"), -32768);
  EXPECT_EQ(value<std::uint64_t>("q"), 65535U);
  EXPECT_EQ(value<std::int64_t>("i"), std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(value<std::uint64_t>("u"), std::numeric_limits<std::uint32_t>::max());
  EXPECT_EQ(value<std::int64_t>("x"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(value<std::uint64_t>("t"), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(value<double>("d"), 0.5);
  EXPECT_EQ(value<std::string>("s"), "text");
  EXPECT_EQ(value<std::string>("o"), "/a");
  EXPECT_EQ(value<std::string>("g"), "a{sv}");
  EXPECT_EQ(value<std::string>("v"), "inner");
}

TEST_F(RemotePropertyReaderTest, ReadsContainers) {
  ASSERT_EQ(read("a{sv}", 5, "bytes", "ay", 2, 0, 255, "none", "ay", 0, "numbers", "ai", 2, -1, 7,
                 "mixed", "av", 2, "s", "a", "as", 1, "b", "dictionary", "a{su}", 1, "key", 4),
            0);
  EXPECT_EQ(value<QSData>("bytes").text(), std::string("\0\xFF", 2));
  EXPECT_EQ(value<QSData>("none").length(), 0U);
  const auto& numbers = value<SystemValue::Array>("numbers");
  ASSERT_EQ(numbers.size(), 2U);
  EXPECT_EQ(std::get<std::int64_t>(numbers[1].value), 7);
  const auto& mixed = value<SystemValue::Array>("mixed");
  ASSERT_EQ(mixed.size(), 2U);
  EXPECT_EQ(std::get<std::string>(mixed[0].value), "a");
  EXPECT_EQ(std::get<std::string>(std::get<SystemValue::Array>(mixed[1].value).at(0).value), "b");
  const auto& dictionary = value<SystemValue::Dictionary>("dictionary");
  EXPECT_EQ(std::get<std::uint64_t>(dictionary.at("key").value), 4U);
}

TEST_F(RemotePropertyReaderTest, KnowsNothingOfOtherTypesAndGoesOnBehindThem) {
  ASSERT_EQ(read("a{sv}", 5, "struct", "(sa{sv})", "a", 1, "b", "i", 1, "by number", "a{us}", 1, 1,
                 "a", "file", "h", 0, "files", "ah", 1, 0, "text", "s", "good"),
            0);
  for (const char* name : {"struct", "by number", "file"})
    EXPECT_TRUE(std::holds_alternative<std::monostate>(properties_.at(name).value)) << name;
  EXPECT_EQ(value<SystemValue::Array>("files").size(), 1U);
  EXPECT_EQ(value<std::string>("text"), "good");
}

TEST_F(RemotePropertyReaderTest, TakesTheLastOfTwoWithOneName) {
  ASSERT_EQ(read("a{sv}", 2, "a", "s", "first", "a", "s", "last"), 0);
  EXPECT_EQ(value<std::string>("a"), "last");
}

TEST_F(RemotePropertyReaderTest, ReadsNothingButProperties) {
  EXPECT_EQ(read("a{ss}", 1, "a", "b"), -EBADMSG);
  message_ = bus_.newMessage();
  EXPECT_EQ(read("a{sv}s", 0, "more"), -EBADMSG);
  message_ = bus_.newMessage();
  EXPECT_EQ(readMessage(), -EBADMSG);
  EXPECT_TRUE(properties_.empty());
}

class RemotePropertyLimitsTest : public RemotePropertyReaderTest {
 protected:
  int readText(std::size_t length) {
    const std::string text(length, 'x');
    return read("a{sv}", 1, "key", "s", text.c_str());
  }
  int readArray(std::size_t elements) {
    EXPECT_GE(sd_bus_message_open_container(message(), 'a', "{sv}"), 0);
    EXPECT_GE(sd_bus_message_open_container(message(), 'e', "sv"), 0);
    EXPECT_GE(sd_bus_message_append(message(), "s", "key"), 0);
    EXPECT_GE(sd_bus_message_open_container(message(), 'v', "ai"), 0);
    EXPECT_GE(sd_bus_message_open_container(message(), 'a', "i"), 0);
    for (std::size_t i = 0; i < elements; ++i)
      EXPECT_GE(sd_bus_message_append(message(), "i", 1), 0);
    for (int i = 0; i < 4; ++i)
      EXPECT_GE(sd_bus_message_close_container(message()), 0);
    return readMessage();
  }
  int readVariants(int depth) {
    EXPECT_GE(sd_bus_message_open_container(message(), 'a', "{sv}"), 0);
    EXPECT_GE(sd_bus_message_open_container(message(), 'e', "sv"), 0);
    EXPECT_GE(sd_bus_message_append(message(), "s", "key"), 0);
    for (int i = 1; i < depth; ++i)
      EXPECT_GE(sd_bus_message_open_container(message(), 'v', "v"), 0);
    EXPECT_GE(sd_bus_message_append(message(), "v", "i", 1), 0);
    for (int i = 1; i < depth + 2; ++i)
      EXPECT_GE(sd_bus_message_close_container(message()), 0);
    return readMessage();
  }
};

TEST_F(RemotePropertyLimitsTest, TakesTextUpToALimit) {
  EXPECT_EQ(readText(kMostPropertyBytes - 3), 0);
  message_ = bus_.newMessage();
  EXPECT_EQ(readText(kMostPropertyBytes - 2), -EMSGSIZE);
}

TEST_F(RemotePropertyLimitsTest, TakesPartsUpToALimit) {
  EXPECT_EQ(readArray(kMostPropertyParts - 3), 0);  // the key, its variant and the array
  message_ = bus_.newMessage();
  EXPECT_EQ(readArray(kMostPropertyParts - 2), -EMSGSIZE);
}

TEST_F(RemotePropertyLimitsTest, GoesDownToALimit) {
  EXPECT_EQ(readVariants(kDeepestProperty - 1), 0);
  message_ = bus_.newMessage();
  EXPECT_EQ(readVariants(kDeepestProperty), -EMSGSIZE);
}

}  // namespace
}  // namespace quillsift
