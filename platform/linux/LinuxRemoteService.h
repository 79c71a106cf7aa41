#pragma once

#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/FileDescriptor.h"
#include "platform/RemoteService.h"
#include "platform/linux/BusPointers.h"

namespace quillsift {

// A client's end, on the bus library. Handlers may call back into it.
class LinuxRemoteService final : public RemoteService {
 public:
  // Takes a connected socket through the handshake, for at most `limit`. None and a positive errno
  // value on failure.
  static std::unique_ptr<LinuxRemoteService> open(FileDescriptor socket, WireInterface server,
                                                  WireInterface notifications,
                                                  std::chrono::nanoseconds limit, int* failure);
  ~LinuxRemoteService() override;

  void setNotificationHandler(NotificationHandler handler) override;
  std::optional<std::vector<WireValue>> call(const std::string& method,
                                             const std::vector<WireValue>& arguments,
                                             std::chrono::nanoseconds limit,
                                             QSError* error) override;
  Wake processEvents(std::chrono::nanoseconds limit, int wakeDescriptor) override;

 private:
  using Clock = std::chrono::steady_clock;
  struct Notification {
    std::string name;
    std::vector<WireValue> arguments;
  };
  enum class Ready { bus, descriptor, timeout };

  LinuxRemoteService(WireInterface server, WireInterface notifications);

  int start(FileDescriptor socket, Clock::time_point deadline);
  // One step of the library: 0 when there is nothing to do, positive when something was done,
  // negative errno when the connection is gone.
  int process();
  // 0 and the answer, results or an error; or a negative errno value.
  int waitForAnswer(sd_bus_message* request, Clock::time_point deadline, BusMessagePointer* answer);
  // Delivers what has come in, at most so many that the caller stays responsive.
  bool deliver();
  Ready wait(Clock::time_point deadline, int wakeDescriptor);
  void keepNotification(sd_bus_message* message);

  const WireInterface server_;
  const WireInterface notifications_;
  NotificationHandler handler_;
  std::deque<Notification> pending_;
  BusPointer bus_;
};

}  // namespace quillsift
