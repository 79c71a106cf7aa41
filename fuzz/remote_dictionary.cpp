// What a remote device sends: messages, and what it says about itself. Input: a byte, and then with
// 0 the a{sv} of a sound message that two descriptors come with, else whatever comes over the
// socket after the handshake.

#include <fcntl.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/FileDescriptor.h"
#include "platform/linux/BusPointers.h"
#include "platform/linux/RemoteDictionaryReader.h"
#include "platform/linux/RemotePropertyReader.h"
#include "tests/doubles/RawBusMessage.h"

namespace {

using quillsift::BusPointer;
using quillsift::FileDescriptor;
using quillsift::RemoteDictionary;
using quillsift::SystemValue;
using quillsift::WakeDescriptor;

constexpr const char* kHandshake =
    "DATA\r\nOK 0123456789abcdef0123456789abcdef\r\nAGREE_UNIX_FD\r\n";

void demand(bool truth) {
  if (!truth) std::abort();
}

// How many bytes of text and data there are. Fails below the deepest level.
std::size_t measure(const SystemValue& value, int depth) {
  demand(depth <= quillsift::kDeepestProperty);
  std::size_t bytes = 0;
  if (const auto* text = std::get_if<std::string>(&value.value)) bytes = text->size();
  if (const auto* data = std::get_if<quillsift::QSData>(&value.value)) bytes = data->length();
  if (const auto* array = std::get_if<SystemValue::Array>(&value.value)) {
    for (const SystemValue& element : *array)
      bytes += measure(element, depth + 1);
  }
  if (const auto* dictionary = std::get_if<SystemValue::Dictionary>(&value.value)) {
    for (const auto& [key, element] : *dictionary)
      bytes += key.size() + measure(element, depth + 1);
  }
  return bytes;
}

int hear(sd_bus_message* message, void* /*context*/, sd_bus_error* /*error*/) {
  RemoteDictionary dictionary;
  const int result = quillsift::readRemoteDictionary(
      message, std::make_shared<const WakeDescriptor>(), &dictionary);
  if (result == 0) demand(dictionary.values.size() + dictionary.files.size() <= 256);
  demand(dictionary.description().size() < 2048);
  SystemValue::Dictionary properties;
  if (sd_bus_message_rewind(message, 1) >= 0 &&
      quillsift::readRemoteProperties(message, &properties) == 0) {
    demand(measure({properties}, 0) <= quillsift::kMostPropertyBytes);
  }
  return 1;
}

void send(int socket, const std::string& bytes, bool withDescriptors) {
  const int passed[] = {STDIN_FILENO, STDIN_FILENO};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof passed)] = {};
  iovec piece{const_cast<char*>(bytes.data()), bytes.size()};
  msghdr header{};
  header.msg_iov = &piece;
  header.msg_iovlen = 1;
  if (withDescriptors) {
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    cmsghdr* const part = CMSG_FIRSTHDR(&header);
    part->cmsg_level = SOL_SOCKET;
    part->cmsg_type = SCM_RIGHTS;
    part->cmsg_len = CMSG_LEN(sizeof passed);
    std::memcpy(CMSG_DATA(part), passed, sizeof passed);
  }
  // What does not fit is never sent.
  (void)::sendmsg(socket, &header, MSG_DONTWAIT | MSG_NOSIGNAL);
}

std::string messageOf(const std::string& body) {
  return quillsift::RawBusMessage{.path = "/io/vantor/omnitrawl/remote",
                                  .interface = "io.vantor.omnitrawl.remote",
                                  .member = "Message",
                                  .signature = "a{sv}",
                                  .descriptors = 2,
                                  .body = body}
      .bytes();
}

// Meets a device that says this and leaves.
void meet(FileDescriptor ours, const FileDescriptor& theirs, const std::string& bytes,
          bool withDescriptors) {
  sd_bus* bus = nullptr;
  demand(sd_bus_new(&bus) >= 0);
  const BusPointer owned(bus);
  demand(sd_bus_negotiate_fds(bus, 1) >= 0);
  demand(sd_bus_add_filter(bus, nullptr, &hear, nullptr) >= 0);
  demand(sd_bus_set_fd(bus, ours.get(), ours.get()) >= 0);
  (void)ours.release();
  send(theirs.get(), kHandshake, false);
  demand(sd_bus_start(bus) >= 0);
  while (sd_bus_is_ready(bus) <= 0)
    demand(sd_bus_process(bus, nullptr) >= 0);
  send(theirs.get(), bytes, withDescriptors);
  demand(::shutdown(theirs.get(), SHUT_WR) == 0);
  while (sd_bus_process(bus, nullptr) >= 0 && sd_bus_is_open(bus) > 0) {
  }
}

// More than a run can leave behind.
std::vector<int> freeDescriptors() {
  std::vector<FileDescriptor> taken(8);
  std::vector<int> numbers;
  for (FileDescriptor& descriptor : taken) {
    descriptor.reset(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
    numbers.push_back(descriptor.get());
  }
  return numbers;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::vector<int> before = freeDescriptors();
  const std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  int ends[2] = {-1, -1};
  demand(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
  {
    FileDescriptor ours(ends[0]);
    const FileDescriptor theirs(ends[1]);
    // The library forgets to close what comes with a message whose header it refuses.
    const bool sound = data[0] == 0;
    meet(std::move(ours), theirs, sound ? messageOf(rest) : rest, sound);
  }
  demand(freeDescriptors() == before);
  return 0;
}
