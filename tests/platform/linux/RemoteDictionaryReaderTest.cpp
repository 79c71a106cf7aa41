#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/linux/BusPointers.h"
#include "platform/linux/RemoteDictionaryReader.h"
#include "tests/platform/linux/IdleBus.h"
#include "tests/platform/linux/ResourceLimit.h"

namespace quillsift {
namespace {

class RemoteDictionaryReaderTest : public testing::Test {
 protected:
  template <typename... Values>
  int read(const char* types, Values... values) {
    EXPECT_GE(sd_bus_message_append(message(), types, values...), 0);
    return readMessage();
  }
  int readMessage() {
    EXPECT_GE(sd_bus_message_seal(message(), 1, 0), 0);
    return readRemoteDictionary(message(), end_, &dictionary_);
  }
  int readKeys(int count, std::size_t length = 1) {
    message_ = bus_.newMessage();
    EXPECT_GE(sd_bus_message_open_container(message(), 'a', "{sv}"), 0);
    for (int i = 0; i < count; ++i) {
      const std::string key = std::string(length, 'k') + std::to_string(i);
      EXPECT_GE(sd_bus_message_append(message(), "{sv}", key.c_str(), "t", std::uint64_t{1}), 0);
    }
    EXPECT_GE(sd_bus_message_close_container(message()), 0);
    return readMessage();
  }
  sd_bus_message* message() { return message_.get(); }

  IdleBus bus_;
  const std::shared_ptr<const WakeDescriptor> end_ = std::make_shared<const WakeDescriptor>();
  BusMessagePointer message_ = bus_.newMessage();
  RemoteDictionary dictionary_;
};

TEST_F(RemoteDictionaryReaderTest, ReadsValuesAndFiles) {
  ASSERT_EQ(read("a{sv}", 6, "t", "t", ~std::uint64_t{0}, "x", "x", std::int64_t{-1}, "b", "b", 1,
                 "d", "d", 0.5, "s", "s", "text", "h", "h", STDIN_FILENO),
            0);
  EXPECT_EQ(dictionary_.values.size(), 5U);
  EXPECT_EQ(dictionary_.values.at("t"), WireValue(~std::uint64_t{0}));
  EXPECT_EQ(dictionary_.values.at("x"), WireValue(std::int64_t{-1}));
  EXPECT_EQ(dictionary_.values.at("b"), WireValue(true));
  EXPECT_EQ(dictionary_.values.at("d"), WireValue(0.5));
  EXPECT_EQ(dictionary_.values.at("s"), WireValue("text"));
  EXPECT_EQ(dictionary_.files.size(), 1U);
  EXPECT_NE(dictionary_.files.at("h"), nullptr);
}

TEST_F(RemoteDictionaryReaderTest, PassesOverOtherTypes) {
  ASSERT_EQ(read("a{sv}", 4, "struct", "(su)", "a", 1, "array", "as", 1, "a", "nested", "a{sv}", 1,
                 "a", "s", "b", "t", "t", std::uint64_t{7}),
            0);
  EXPECT_EQ(dictionary_.values, (WireDictionary{{"t", WireValue(std::uint64_t{7})}}));
}

TEST_F(RemoteDictionaryReaderTest, TakesSoManyKeys) {
  EXPECT_EQ(readKeys(256), 0);
  EXPECT_EQ(readKeys(257), -EMSGSIZE);
}

TEST_F(RemoteDictionaryReaderTest, TakesSoMuchText) {
  const std::string most(65536 - 3, 'x');
  EXPECT_EQ(read("a{sv}", 1, "key", "s", most.c_str()), 0);
  message_ = bus_.newMessage();
  EXPECT_EQ(read("a{sv}", 2, "key", "s", most.c_str(), "k", "b", 1), -EMSGSIZE);
  EXPECT_EQ(readKeys(1, 65537), -EMSGSIZE);
  EXPECT_EQ(readKeys(40, 2000), -EMSGSIZE);
}

TEST_F(RemoteDictionaryReaderTest, FailsWhenAFileCannotBeKept) {
  EXPECT_GE(sd_bus_message_append(message(), "a{sv}", 1, "h", "h", STDIN_FILENO), 0);
  EXPECT_GE(sd_bus_message_seal(message(), 1, 0), 0);
  const DescriptorShortage shortage(0);
  EXPECT_EQ(readRemoteDictionary(message(), end_, &dictionary_), -EMFILE);
}

}  // namespace
}  // namespace quillsift
