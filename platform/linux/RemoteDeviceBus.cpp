#include "platform/linux/RemoteDeviceBus.h"

#include <poll.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "platform/linux/BusPointers.h"

namespace quillsift {

namespace {

// The library answers what a device asks, whether that reads the answers or not.
constexpr std::uint64_t kMostUnreadAnswers = 64;

struct Answer {
  BusMessagePointer message;

  static int keep(sd_bus_message* message, void* answer, sd_bus_error* /*error*/) {
    static_cast<Answer*>(answer)->message.reset(sd_bus_message_ref(message));
    return 1;
  }
};

// One step of the library, or a wait for the next. False when the bus or the time is at its end.
bool go(sd_bus* bus, RemoteDeadline deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
  if (left <= 0) return false;
  const int result = sd_bus_process(bus, nullptr);
  if (result < 0 || sd_bus_is_open(bus) <= 0 || isNotRead(bus)) return false;
  if (result > 0) return true;
  pollfd descriptor{.fd = sd_bus_get_fd(bus),
                    .events = static_cast<short>(std::max(sd_bus_get_events(bus), 0)),
                    .revents = 0};
  return ::poll(&descriptor, 1, static_cast<int>(left)) >= 0 || errno == EINTR;
}

BusPointer startBus(FileDescriptor socket, bool mayPassFiles) {
  sd_bus* bus = nullptr;
  if (sd_bus_new(&bus) < 0) return nullptr;
  BusPointer owned(bus);
  if (sd_bus_negotiate_fds(bus, mayPassFiles ? 1 : 0) < 0 ||
      sd_bus_set_fd(bus, socket.get(), socket.get()) < 0) {
    return nullptr;
  }
  (void)socket.release();
  return sd_bus_start(bus) < 0 ? nullptr : std::move(owned);
}

}  // namespace

BusPointer openRemoteBus(FileDescriptor socket, bool mayPassFiles, RemoteDeadline deadline) {
  BusPointer bus = startBus(std::move(socket), mayPassFiles);
  while (bus && sd_bus_is_ready(bus.get()) <= 0) {
    if (!go(bus.get(), deadline)) return nullptr;
  }
  return bus;
}

BusMessagePointer askRemote(sd_bus* bus, const RemoteQuestion& question, RemoteDeadline deadline) {
  Answer answer;
  sd_bus_slot* slot = nullptr;
  const int result = sd_bus_call_method_async(
      bus, &slot, nullptr, question.path.c_str(), question.interface.c_str(),
      question.member.c_str(), &Answer::keep, &answer, "s", question.argument.c_str());
  const BusSlotPointer forgottenAtTheEnd(slot);
  while (result >= 0 && !answer.message && go(bus, deadline)) {
  }
  const bool answered =
      answer.message && sd_bus_message_is_method_error(answer.message.get(), nullptr) <= 0;
  return answered ? std::move(answer.message) : nullptr;
}

bool isNotRead(sd_bus* bus) {
  std::uint64_t unread = 0;
  return sd_bus_get_n_queued_write(bus, &unread) >= 0 && unread > kMostUnreadAnswers;
}

}  // namespace quillsift
