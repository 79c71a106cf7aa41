#include "platform/linux/LinuxRemoteService.h"

#include <poll.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "platform/linux/BusMarshalling.h"
#include "platform/linux/BusObjects.h"
#include "platform/linux/BusPointers.h"

namespace quillsift {

namespace {

using std::chrono::nanoseconds;

// Notifications delivered by one processEvents, so that a flood of them does not keep the caller
// from looking at its descriptor.
constexpr int kDeliveriesPerTurn = 256;

// The answer of a call, once it is there.
struct Answer {
  BusMessagePointer message;

  static int keep(sd_bus_message* message, void* answer, sd_bus_error* /*error*/) {
    static_cast<Answer*>(answer)->message.reset(sd_bus_message_ref(message));
    return 1;
  }
};

std::chrono::steady_clock::time_point deadlineAfter(nanoseconds limit) {
  const auto now = std::chrono::steady_clock::now();
  const auto longest = std::chrono::steady_clock::time_point::max() - now;
  return now + std::clamp(limit, nanoseconds::zero(), nanoseconds(longest));
}

// Waits for `descriptors` until the deadline; as ::poll, but a signal does not end it.
int pollUntil(pollfd* descriptors, nfds_t count, std::chrono::steady_clock::time_point deadline) {
  for (;;) {
    const nanoseconds left =
        std::max<nanoseconds>(deadline - std::chrono::steady_clock::now(), nanoseconds::zero());
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    const timespec limit{.tv_sec = seconds.count(), .tv_nsec = (left - seconds).count()};
    const int result = ::ppoll(descriptors, count, &limit, nullptr);
    if (result >= 0 || errno != EINTR) return result;
  }
}

bool canBeRead(int descriptor) {
  pollfd state{.fd = descriptor, .events = POLLIN, .revents = 0};
  return descriptor >= 0 && ::poll(&state, 1, 0) > 0;
}

// What the service answered with instead of results.
QSError remoteFailure(sd_bus_message* answer) {
  QSError error = QSError::posix(sd_bus_message_get_errno(answer));
  const sd_bus_error* remote = sd_bus_message_get_error(answer);
  if (remote != nullptr && remote->message != nullptr) error.localizedDescription = remote->message;
  return error;
}

}  // namespace

LinuxRemoteService::LinuxRemoteService(WireInterface server, WireInterface notifications)
    : server_(std::move(server)), notifications_(std::move(notifications)) {}

LinuxRemoteService::~LinuxRemoteService() = default;

std::unique_ptr<LinuxRemoteService> LinuxRemoteService::open(FileDescriptor socket,
                                                             WireInterface server,
                                                             WireInterface notifications,
                                                             nanoseconds limit, int* failure) {
  std::unique_ptr<LinuxRemoteService> service(
      new LinuxRemoteService(std::move(server), std::move(notifications)));
  const int result = service->start(std::move(socket), deadlineAfter(limit));
  if (result >= 0) return service;
  *failure = -result;
  return nullptr;
}

int LinuxRemoteService::start(FileDescriptor socket, Clock::time_point deadline) {
  sd_bus* bus = nullptr;
  int result = sd_bus_new(&bus);
  if (result < 0) return result;
  bus_.reset(bus);
  result = sd_bus_add_filter(
      bus, nullptr,
      [](sd_bus_message* message, void* service, sd_bus_error*) {
        static_cast<LinuxRemoteService*>(service)->keepNotification(message);
        return 0;
      },
      this);
  if (result >= 0) result = sd_bus_set_fd(bus, socket.get(), socket.get());
  if (result < 0) return result;
  (void)socket.release();
  result = sd_bus_start(bus);
  while (result >= 0 && sd_bus_is_ready(bus) <= 0) {
    result = process();
    if (result == 0 && wait(deadline, -1) == Ready::timeout) return -ETIMEDOUT;
  }
  return result;
}

int LinuxRemoteService::process() {
  const int result = sd_bus_process(bus_.get(), nullptr);
  if (result >= 0 && sd_bus_is_open(bus_.get()) <= 0) return -ECONNRESET;
  return result;
}

void LinuxRemoteService::keepNotification(sd_bus_message* message) {
  if (sd_bus_message_is_signal(message, notifications_.name.c_str(), nullptr) <= 0) return;
  const char* member = sd_bus_message_get_member(message);
  for (const WireMessage& type : notifications_.messages) {
    if (type.name != member) continue;
    Notification notification{.name = type.name, .arguments = {}};
    // One that does not hold what it should is none of ours.
    if (readFromBusMessage(message, type.arguments, &notification.arguments) == 0) {
      pending_.push_back(std::move(notification));
    }
    return;
  }
}

void LinuxRemoteService::setNotificationHandler(NotificationHandler handler) {
  handler_ = std::move(handler);
}

std::optional<std::vector<WireValue>> LinuxRemoteService::call(
    const std::string& method, const std::vector<WireValue>& arguments, nanoseconds limit,
    QSError* error) {
  const auto type = std::find_if(server_.messages.begin(), server_.messages.end(),
                                 [&](const WireMessage& known) { return known.name == method; });
  if (type == server_.messages.end()) {
    setError(error, QSError::posix(ENOSYS));
    return std::nullopt;
  }
  sd_bus_message* message = nullptr;
  int result = sd_bus_message_new_method_call(bus_.get(), &message, nullptr, kServiceObjectPath,
                                              server_.name.c_str(), method.c_str());
  const BusMessagePointer request(message);
  if (result >= 0) result = appendToBusMessage(message, type->arguments, arguments);
  BusMessagePointer answer;
  if (result >= 0) result = waitForAnswer(message, deadlineAfter(limit), &answer);
  if (result >= 0 && sd_bus_message_is_method_error(answer.get(), nullptr) > 0) {
    setError(error, remoteFailure(answer.get()));
    return std::nullopt;
  }
  std::vector<WireValue> results;
  if (result >= 0) result = readFromBusMessage(answer.get(), type->results, &results);
  if (result >= 0) return results;
  setError(error, QSError::posix(-result));
  return std::nullopt;
}

// Not the library's own waiting call: that ends with the first signal.
int LinuxRemoteService::waitForAnswer(sd_bus_message* request, Clock::time_point deadline,
                                      BusMessagePointer* answer) {
  Answer kept;
  sd_bus_slot* slot = nullptr;
  int result = sd_bus_call_async(bus_.get(), &slot, request, &Answer::keep, &kept,
                                 std::numeric_limits<std::uint64_t>::max());
  const BusSlotPointer cancelledAtTheEnd(slot);
  while (result >= 0) {
    result = process();
    if (result < 0 || kept.message) break;
    // Also while it is busy with notifications.
    const bool late = result == 0 ? wait(deadline, -1) == Ready::timeout : Clock::now() >= deadline;
    if (late) return -ETIMEDOUT;
  }
  *answer = std::move(kept.message);
  return *answer ? 0 : result;
}

RemoteService::Wake LinuxRemoteService::processEvents(nanoseconds limit, int wakeDescriptor) {
  const auto deadline = deadlineAfter(limit);
  for (;;) {
    int result = 0;
    while (pending_.size() < kDeliveriesPerTurn && (result = process()) > 0) {
    }
    if (deliver()) return canBeRead(wakeDescriptor) ? Wake::descriptor : Wake::event;
    if (result < 0) return Wake::disconnected;
    switch (wait(deadline, wakeDescriptor)) {
      case Ready::descriptor:
        return Wake::descriptor;
      case Ready::timeout:
        return Wake::timeout;
      case Ready::bus:
        break;
    }
  }
}

bool LinuxRemoteService::deliver() {
  bool delivered = false;
  for (int i = 0; i < kDeliveriesPerTurn && !pending_.empty(); ++i) {
    const Notification notification = std::move(pending_.front());
    pending_.pop_front();
    if (handler_) handler_(notification.name, notification.arguments);
    delivered = true;
  }
  return delivered;
}

LinuxRemoteService::Ready LinuxRemoteService::wait(Clock::time_point deadline, int wakeDescriptor) {
  const int events = sd_bus_get_events(bus_.get());
  pollfd descriptors[] = {
      {.fd = sd_bus_get_fd(bus_.get()),
       .events = static_cast<short>(std::max(events, 0)),
       .revents = 0},
      {.fd = wakeDescriptor, .events = POLLIN, .revents = 0},
  };
  if (pollUntil(descriptors, 2, deadline) <= 0) return Ready::timeout;
  return descriptors[1].revents != 0 ? Ready::descriptor : Ready::bus;
}

}  // namespace quillsift
