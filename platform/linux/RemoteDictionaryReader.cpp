#include "platform/linux/RemoteDictionaryReader.h"

#include <fcntl.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/linux/LinuxFileTransfer.h"

namespace quillsift {

namespace {

// Keys that one message may have: a dictionary is looked through from its start, and ours have
// three.
constexpr std::size_t kMostEntries = 256;
// Of all keys and texts together. Messages wait in memory for whoever handles them.
constexpr std::size_t kMostText = std::size_t{64} * 1024;

std::size_t textOf(const RemoteDictionary& dictionary, const char* key) {
  const auto value = dictionary.values.find(key);
  const auto* text = value == dictionary.values.end() ? nullptr : value->second.as<std::string>();
  return std::strlen(key) + (text != nullptr ? text->size() : 0);
}

template <typename Carried, typename Value>
int readNumber(sd_bus_message* message, char type, const char* key, RemoteDictionary* dictionary) {
  Carried value{};
  const int result = sd_bus_message_read_basic(message, type, &value);
  if (result > 0) {
    dictionary->values.insert_or_assign(key, WireValue(static_cast<Value>(value)));
  }
  return result;
}

int readText(sd_bus_message* message, const char* key, RemoteDictionary* dictionary) {
  const char* text = nullptr;
  const int result = sd_bus_message_read_basic(message, 's', &text);
  if (result > 0) dictionary->values.insert_or_assign(key, WireValue(text));
  return result;
}

int readFile(sd_bus_message* message, const char* key,
             const std::shared_ptr<const WakeDescriptor>& transfersEnd,
             RemoteDictionary* dictionary) {
  int passed = -1;
  const int result = sd_bus_message_read_basic(message, 'h', &passed);
  if (result <= 0) return result;
  FileDescriptor kept(::fcntl(passed, F_DUPFD_CLOEXEC, 0));
  if (!kept.valid()) return -errno;
  dictionary->files[key] = std::make_shared<LinuxFileTransfer>(std::move(kept), transfersEnd);
  return result;
}

int readValue(sd_bus_message* message, std::string_view type, const char* key,
              const std::shared_ptr<const WakeDescriptor>& transfersEnd,
              RemoteDictionary* dictionary) {
  if (type == "t") return readNumber<std::uint64_t, std::uint64_t>(message, 't', key, dictionary);
  if (type == "x") return readNumber<std::int64_t, std::int64_t>(message, 'x', key, dictionary);
  if (type == "b") return readNumber<int, bool>(message, 'b', key, dictionary);
  if (type == "d") return readNumber<double, double>(message, 'd', key, dictionary);
  if (type == "s") return readText(message, key, dictionary);
  if (type == "h") return readFile(message, key, transfersEnd, dictionary);
  return sd_bus_message_skip(message, std::string(type).c_str());
}

// Adds the length of what it has read to `text`.
int readEntry(sd_bus_message* message, const std::shared_ptr<const WakeDescriptor>& transfersEnd,
              RemoteDictionary* dictionary, std::size_t* text) {
  const char* key = nullptr;
  const char* contents = nullptr;
  char container = 0;
  int result = sd_bus_message_read_basic(message, 's', &key);
  if (result > 0) result = sd_bus_message_peek_type(message, &container, &contents);
  if (result <= 0 || container != 'v' || contents == nullptr) return result < 0 ? result : -EBADMSG;
  const std::string type = contents;
  result = sd_bus_message_enter_container(message, 'v', type.c_str());
  if (result > 0) result = readValue(message, type, key, transfersEnd, dictionary);
  *text += textOf(*dictionary, key);
  return result >= 0 ? sd_bus_message_exit_container(message) : result;
}

}  // namespace

int readRemoteDictionary(sd_bus_message* message,
                         const std::shared_ptr<const WakeDescriptor>& transfersEnd,
                         RemoteDictionary* dictionary) {
  int result = sd_bus_message_enter_container(message, 'a', "{sv}");
  std::size_t entries = 0;
  std::size_t text = 0;
  while (result >= 0 && (result = sd_bus_message_enter_container(message, 'e', "sv")) > 0) {
    if (++entries > kMostEntries) return -EMSGSIZE;
    result = readEntry(message, transfersEnd, dictionary, &text);
    if (text > kMostText) return -EMSGSIZE;
    if (result >= 0) result = sd_bus_message_exit_container(message);
  }
  return result < 0 ? result : 0;
}

}  // namespace quillsift
