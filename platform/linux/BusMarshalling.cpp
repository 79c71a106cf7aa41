#include "platform/linux/BusMarshalling.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>
#include <variant>

#include "platform/Text.h"

namespace quillsift {

namespace {

constexpr std::string_view kDictionaryType = "a{sv}";

int appendValue(sd_bus_message* message, std::string_view type, const WireValue& value, int depth);
int readValue(sd_bus_message* message, std::string_view type, WireValue* value, int depth);

template <typename T>
int appendNumber(sd_bus_message* message, char type, const WireValue& value) {
  const T* number = value.as<T>();
  return number != nullptr ? sd_bus_message_append_basic(message, type, number) : -EINVAL;
}

int appendText(sd_bus_message* message, const std::string& text) {
  return sd_bus_message_append_basic(message, 's', validUTF8(text).c_str());
}

int appendBasic(sd_bus_message* message, char type, const WireValue& value) {
  switch (type) {
    case 'b': {
      const bool* flag = value.as<bool>();
      if (flag == nullptr) return -EINVAL;
      const int number = *flag ? 1 : 0;
      return sd_bus_message_append_basic(message, 'b', &number);
    }
    case 'x':
      return appendNumber<std::int64_t>(message, type, value);
    case 't':
      return appendNumber<std::uint64_t>(message, type, value);
    case 'd':
      return appendNumber<double>(message, type, value);
    case 's': {
      const std::string* text = value.as<std::string>();
      return text != nullptr ? appendText(message, *text) : -EINVAL;
    }
    default:
      return -EINVAL;
  }
}

// The type that a value has by itself; null for an array, whose elements nobody has named.
const char* ownType(const WireValue& value) {
  constexpr const char* kTypes[] = {"b", "x", "t", "d", "s", nullptr, "a{sv}"};
  return kTypes[value.storage().index()];
}

int appendEntry(sd_bus_message* message, const std::string& key, const WireValue& value,
                int depth) {
  const char* type = ownType(value);
  if (type == nullptr) return -EINVAL;
  int result = sd_bus_message_open_container(message, 'e', "sv");
  if (result >= 0) result = appendText(message, key);
  if (result >= 0) result = sd_bus_message_open_container(message, 'v', type);
  if (result >= 0) result = appendValue(message, type, value, depth);
  if (result >= 0) result = sd_bus_message_close_container(message);
  if (result >= 0) result = sd_bus_message_close_container(message);
  return result;
}

int appendDictionary(sd_bus_message* message, const WireValue& value, int depth) {
  const auto* dictionary = value.as<WireDictionary>();
  if (dictionary == nullptr) return -EINVAL;
  int result = sd_bus_message_open_container(message, 'a', "{sv}");
  for (const auto& [key, entry] : *dictionary) {
    if (result >= 0) result = appendEntry(message, key, entry, depth + 1);
  }
  return result >= 0 ? sd_bus_message_close_container(message) : result;
}

int appendArray(sd_bus_message* message, std::string_view elementType, const WireValue& value,
                int depth) {
  const auto* array = value.as<WireArray>();
  if (array == nullptr) return -EINVAL;
  int result = sd_bus_message_open_container(message, 'a', std::string(elementType).c_str());
  for (const WireValue& element : *array) {
    if (result >= 0) result = appendValue(message, elementType, element, depth + 1);
  }
  return result >= 0 ? sd_bus_message_close_container(message) : result;
}

int appendValue(sd_bus_message* message, std::string_view type, const WireValue& value, int depth) {
  if (depth >= kMaximumWireNesting || type.empty()) return -EINVAL;
  if (type == kDictionaryType) return appendDictionary(message, value, depth);
  if (type.front() == 'a') return appendArray(message, type.substr(1), value, depth);
  return type.size() == 1 ? appendBasic(message, type.front(), value) : -EINVAL;
}

// The reading functions return 0 or a negative errno value. Nothing where something should be is as
// wrong as another type.
int exactly(int result) {
  if (result > 0) return 0;
  return result == 0 || result == -ENXIO ? -EBADMSG : result;
}

int exitContainer(sd_bus_message* message) {
  return std::min(sd_bus_message_exit_container(message), 0);
}

template <typename Carried, typename Value>
int readNumber(sd_bus_message* message, char type, WireValue* value) {
  Carried number{};
  const int result = exactly(sd_bus_message_read_basic(message, type, &number));
  if (result == 0) *value = WireValue(static_cast<Value>(number));
  return result;
}

int readText(sd_bus_message* message, std::string* text) {
  const char* read = nullptr;
  const int result = exactly(sd_bus_message_read_basic(message, 's', &read));
  if (result == 0) *text = read;
  return result;
}

int readBasic(sd_bus_message* message, char type, WireValue* value) {
  switch (type) {
    case 'b':
      return readNumber<int, bool>(message, type, value);
    case 'x':
      return readNumber<std::int64_t, std::int64_t>(message, type, value);
    case 't':
      return readNumber<std::uint64_t, std::uint64_t>(message, type, value);
    case 'd':
      return readNumber<double, double>(message, type, value);
    case 's': {
      std::string text;
      const int result = readText(message, &text);
      if (result == 0) *value = WireValue(std::move(text));
      return result;
    }
    default:
      return -EBADMSG;
  }
}

int readVariant(sd_bus_message* message, WireValue* value, int depth) {
  char container = 0;
  const char* contents = nullptr;
  int result = exactly(sd_bus_message_peek_type(message, &container, &contents));
  if (result < 0) return result;
  if (container != 'v' || contents == nullptr) return -EBADMSG;
  // An array in a variant could be written by nobody here: only records and plain values.
  const std::string type = contents;
  if (type.front() == 'a' && type != kDictionaryType) return -EBADMSG;
  result = exactly(sd_bus_message_enter_container(message, 'v', type.c_str()));
  if (result == 0) result = readValue(message, type, value, depth);
  return result == 0 ? exitContainer(message) : result;
}

int readEntry(sd_bus_message* message, WireDictionary* dictionary, int depth) {
  std::string key;
  WireValue value;
  int result = exactly(sd_bus_message_enter_container(message, 'e', "sv"));
  if (result == 0) result = readText(message, &key);
  if (result == 0) result = readVariant(message, &value, depth);
  if (result == 0) result = exitContainer(message);
  if (result >= 0) dictionary->insert_or_assign(key, std::move(value));
  return result;
}

// Calls `readElement` for each element of an array.
template <typename ReadElement>
int readElements(sd_bus_message* message, const char* elementType, ReadElement readElement) {
  int result = exactly(sd_bus_message_enter_container(message, 'a', elementType));
  while (result == 0) {
    const int atEnd = sd_bus_message_at_end(message, 0);
    if (atEnd < 0) return atEnd;
    if (atEnd > 0) return exitContainer(message);
    result = readElement();
  }
  return result;
}

int readDictionary(sd_bus_message* message, WireValue* value, int depth) {
  WireDictionary dictionary;
  const int result =
      readElements(message, "{sv}", [&] { return readEntry(message, &dictionary, depth + 1); });
  if (result >= 0) *value = WireValue(std::move(dictionary));
  return result;
}

int readArray(sd_bus_message* message, std::string_view elementType, WireValue* value, int depth) {
  WireArray array;
  const int result = readElements(message, std::string(elementType).c_str(), [&] {
    return readValue(message, elementType, &array.emplace_back(), depth + 1);
  });
  if (result >= 0) *value = WireValue(std::move(array));
  return result;
}

int readValue(sd_bus_message* message, std::string_view type, WireValue* value, int depth) {
  if (depth >= kMaximumWireNesting || type.empty()) return -EBADMSG;
  if (type == kDictionaryType) return readDictionary(message, value, depth);
  if (type.front() == 'a') return readArray(message, type.substr(1), value, depth);
  return type.size() == 1 ? readBasic(message, type.front(), value) : -EBADMSG;
}

std::size_t allocatedBytes(const WireValue& value);

std::size_t allocatedBytes(const std::string& text) {
  // A short text lies inside the object.
  return text.capacity() > std::string().capacity() ? text.capacity() + 1 : 0;
}

struct AllocatedBytes {
  template <typename Number>
  std::size_t operator()(const Number&) const {
    return 0;
  }
  std::size_t operator()(const std::string& text) const { return allocatedBytes(text); }
  std::size_t operator()(const WireArray& array) const {
    std::size_t bytes = array.capacity() * sizeof(WireValue);
    for (const WireValue& element : array)
      bytes += allocatedBytes(element);
    return bytes;
  }
  std::size_t operator()(const WireDictionary& dictionary) const {
    std::size_t bytes = dictionary.capacity() * sizeof(WireDictionary::Entry);
    for (const auto& entry : dictionary)
      bytes += allocatedBytes(entry.first) + allocatedBytes(entry.second);
    return bytes;
  }
};

std::size_t allocatedBytes(const WireValue& value) {
  return std::visit(AllocatedBytes{}, value.storage());
}

}  // namespace

std::string busSignature(const std::vector<WireArgument>& arguments) {
  std::string signature;
  for (const WireArgument& argument : arguments)
    signature += argument.type;
  return signature;
}

int appendToBusMessage(sd_bus_message* message, const std::vector<WireArgument>& arguments,
                       const std::vector<WireValue>& values) {
  if (arguments.size() != values.size()) return -EINVAL;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const int result = appendValue(message, arguments[i].type, values[i], 0);
    if (result < 0) return result;
  }
  return 0;
}

int readFromBusMessage(sd_bus_message* message, const std::vector<WireArgument>& arguments,
                       std::vector<WireValue>* values) {
  values->clear();
  const char* signature = sd_bus_message_get_signature(message, 1);
  if (busSignature(arguments) != (signature != nullptr ? signature : "")) return -EBADMSG;
  int result = sd_bus_message_rewind(message, 1);
  for (std::size_t i = 0; result >= 0 && i < arguments.size(); ++i) {
    result = readValue(message, arguments[i].type, &values->emplace_back(), 0);
  }
  if (result >= 0) return 0;
  values->clear();
  return result;
}

std::size_t heldBytes(const std::vector<WireValue>& values) {
  std::size_t bytes = values.capacity() * sizeof(WireValue);
  for (const WireValue& value : values)
    bytes += allocatedBytes(value);
  return bytes;
}

}  // namespace quillsift
