#include "platform/linux/LinuxRemoteDevice.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <utility>

#include "platform/linux/BusPointers.h"
#include "platform/linux/LinuxRemoteConnection.h"
#include "platform/linux/LinuxRemoteDevices.h"
#include "platform/linux/PeerCredentials.h"
#include "platform/linux/RemoteDeviceBus.h"
#include "platform/linux/RemotePropertyReader.h"

namespace quillsift {

namespace {

// The question that a message bus is asked, so that what answers it can be an ordinary library.
bool offers(sd_bus* bus, const std::string& service, RemoteDeadline deadline) {
  const auto answer = askRemote(bus,
                                {.path = "/org/freedesktop/DBus",
                                 .interface = "org.freedesktop.DBus",
                                 .member = "NameHasOwner",
                                 .argument = service},
                                deadline);
  int yes = 0;
  return answer && sd_bus_message_read_basic(answer.get(), 'b', &yes) > 0 && yes != 0;
}

class LinuxRemoteDeviceService : public RemoteDeviceService {
 public:
  LinuxRemoteDeviceService(BusPointer bus, std::string name)
      : name_(std::move(name)), bus_(std::move(bus)) {}

  // Once: the device has one connection to give.
  std::shared_ptr<RemoteConnection> makeConnection(std::shared_ptr<SerialQueue> queue) override {
    MutexLock lock(mutex_);
    return bus_ ? LinuxRemoteConnection::make(std::move(bus_), name_, std::move(queue)) : nullptr;
  }

 private:
  const std::string name_;
  Mutex mutex_;
  BusPointer bus_ QS_GUARDED_BY(mutex_);
};

}  // namespace

LinuxRemoteDevice::LinuxRemoteDevice(FileDescriptor directory, std::string name,
                                     std::chrono::milliseconds limit)
    : directory_(std::move(directory)), name_(std::move(name)), limit_(limit) {}

FileDescriptor LinuxRemoteDevice::connect() const {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  // Through the directory looked at before, whatever its path leads to by now.
  const std::string path = "/proc/self/fd/" + std::to_string(directory_.get()) + "/" + name_;
  if (path.size() >= sizeof address.sun_path) return {};
  std::memcpy(address.sun_path, path.c_str(), path.size());
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.valid()) return {};
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return {};
  }
  const auto peer = readPeerCredentials(socket.get());
  const bool ours = peer && (peer->userIdentifier == 0 || peer->userIdentifier == ::geteuid());
  return ours ? std::move(socket) : FileDescriptor();
}

RemoteDeviceState LinuxRemoteDevice::state() {
  MutexLock lock(mutex_);
  if (!socket_.valid()) socket_ = connect();
  return socket_.valid() ? RemoteDeviceState::connected : RemoteDeviceState::attached;
}

std::shared_ptr<RemoteDeviceService> LinuxRemoteDevice::service(const std::string& name) {
  FileDescriptor socket;
  {
    MutexLock lock(mutex_);
    socket = socket_.valid() ? std::move(socket_) : connect();
  }
  if (!socket.valid()) return nullptr;
  const RemoteDeadline deadline = std::chrono::steady_clock::now() + limit_;
  BusPointer bus = openRemoteBus(std::move(socket), true, deadline);
  if (!bus || !offers(bus.get(), name, deadline)) return nullptr;
  return std::make_shared<LinuxRemoteDeviceService>(std::move(bus), name);
}

// On a connection of its own: another may be busy with a service, and may end at any moment.
std::optional<SystemValue::Dictionary> LinuxRemoteDevice::properties() {
  FileDescriptor socket = connect();
  if (!socket.valid()) return std::nullopt;
  const RemoteDeadline deadline = std::chrono::steady_clock::now() + limit_;
  const BusPointer bus = openRemoteBus(std::move(socket), false, deadline);
  if (!bus) return std::nullopt;
  const auto answer = askRemote(bus.get(),
                                {.path = LinuxRemoteConnection::kObjectPath,
                                 .interface = "org.freedesktop.DBus.Properties",
                                 .member = "GetAll",
                                 .argument = kRemotePropertyInterface},
                                deadline);
  SystemValue::Dictionary properties;
  if (!answer || readRemoteProperties(answer.get(), &properties) < 0) return std::nullopt;
  return properties;
}

}  // namespace quillsift
