#include "platform/linux/RemotePropertyReader.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <utility>
#include <variant>

namespace quillsift {

namespace {

// Every function returns a negative errno value on failure.
class PropertyReader {
 public:
  explicit PropertyReader(sd_bus_message* message) : message_(message) {}

  // `entry` as in a signature, with its braces.
  int readDictionary(SystemValue::Dictionary* dictionary, const std::string& entry, int depth) {
    int result = sd_bus_message_enter_container(message_, 'a', entry.c_str());
    const std::string types = entry.substr(1, entry.size() - 2);
    while (result >= 0 &&
           (result = sd_bus_message_enter_container(message_, 'e', types.c_str())) > 0) {
      result = readEntry(dictionary, depth);
      if (result >= 0) result = sd_bus_message_exit_container(message_);
    }
    return result < 0 ? result : sd_bus_message_exit_container(message_);
  }

 private:
  int readEntry(SystemValue::Dictionary* dictionary, int depth) {
    SystemValue name;
    SystemValue value;
    int result = readText('s', &name);
    if (result >= 0) result = readValue(&value, depth);
    if (result >= 0) {
      dictionary->insert_or_assign(std::get<std::string>(name.value), std::move(value));
    }
    return result;
  }

  int readValue(SystemValue* value, int depth) {
    if (depth > kDeepestProperty) return -EMSGSIZE;
    char type = 0;
    const char* contents = nullptr;
    int result = sd_bus_message_peek_type(message_, &type, &contents);
    if (result <= 0) return result < 0 ? result : -EBADMSG;
    result = count(0);
    if (result < 0) return result;
    const std::string inside =
        contents != nullptr ? contents : "";  // only valid until the next call
    switch (type) {
      case 'v':
        result = sd_bus_message_enter_container(message_, 'v', inside.c_str());
        if (result >= 0) result = readValue(value, depth + 1);
        return result < 0 ? result : sd_bus_message_exit_container(message_);
      case 'a':
        return readArray(inside, value, depth);
      case 'r':
        return sd_bus_message_skip(message_, ("(" + inside + ")").c_str());
      case 'h':
        return sd_bus_message_skip(message_, "h");
      default:
        return readBasic(type, value);
    }
  }

  int readArray(const std::string& element, SystemValue* value, int depth) {
    if (element == "y") return readBytes(value);
    if (element.starts_with("{s")) {
      return readDictionary(&value->value.emplace<SystemValue::Dictionary>(), element, depth + 1);
    }
    if (element.starts_with("{")) return sd_bus_message_skip(message_, ("a" + element).c_str());
    auto& array = value->value.emplace<SystemValue::Array>();
    int result = sd_bus_message_enter_container(message_, 'a', element.c_str());
    while (result >= 0 && (result = sd_bus_message_at_end(message_, 0)) == 0)
      result = readValue(&array.emplace_back(), depth + 1);
    return result < 0 ? result : sd_bus_message_exit_container(message_);
  }

  int readBytes(SystemValue* value) {
    const void* bytes = nullptr;
    std::size_t length = 0;
    int result = sd_bus_message_read_array(message_, 'y', &bytes, &length);
    if (result >= 0) result = count(length);
    if (result >= 0) {
      value->value = QSData::copyOf(std::span(static_cast<const std::byte*>(bytes), length));
    }
    return result;
  }

  int readBasic(char type, SystemValue* value) {
    switch (type) {
      case 'b':
        return readNumber<int, bool>(type, value);
      case 'y':
        return readNumber<std::uint8_t, std::uint64_t>(type, value);
      case 'q':
        return readNumber<std::uint16_t, std::uint64_t>(type, value);
      case 'u':
        return readNumber<std::uint32_t, std::uint64_t>(type, value);
      case 't':
        return readNumber<std::uint64_t, std::uint64_t>(type, value);
      case 'n':
        return readNumber<std::int16_t, std::int64_t>(type, value);
      case 'i':
        return readNumber<std::int32_t, std::int64_t>(type, value);
      case 'x':
        return readNumber<std::int64_t, std::int64_t>(type, value);
      case 'd':
        return readNumber<double, double>(type, value);
      default:
        return readText(type, value);
    }
  }

  template <typename Carried, typename Value>
  int readNumber(char type, SystemValue* value) {
    Carried number{};
    const int result = sd_bus_message_read_basic(message_, type, &number);
    if (result >= 0) value->value = static_cast<Value>(number);
    return result;
  }

  int readText(char type, SystemValue* value) {
    const char* text = nullptr;
    int result = sd_bus_message_read_basic(message_, type, &text);
    if (result <= 0) return result < 0 ? result : -EBADMSG;
    value->value = std::string(text);
    return count(std::strlen(text));
  }

  int count(std::size_t bytes) {
    bytes_ += bytes;
    ++parts_;
    return parts_ > kMostPropertyParts || bytes_ > kMostPropertyBytes ? -EMSGSIZE : 0;
  }

  sd_bus_message* const message_;
  std::size_t parts_ = 0;
  std::size_t bytes_ = 0;
};

}  // namespace

int readRemoteProperties(sd_bus_message* message, SystemValue::Dictionary* properties) {
  if (sd_bus_message_has_signature(message, "a{sv}") <= 0) return -EBADMSG;
  return std::min(PropertyReader(message).readDictionary(properties, "{sv}", 1), 0);
}

}  // namespace quillsift
