#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "platform/RemoteDevices.h"

namespace quillsift {

class PlatformTree;

// Where devices present themselves: one socket each, whose file name is the device's name.
inline constexpr const char* kRemoteDevicesDirectory = "/run/io.vantor.remote-devices";
// The type that the sockets there have: a companion processor is the only kind we speak with.
inline constexpr std::uint32_t kRemoteDeviceType = 3;
// What a device's own properties belong to.
inline constexpr const char* kRemotePropertyInterface = "io.vantor.omnitrawl.remote";
// How long a device may take to say whether it offers a service, or to give its properties.
inline constexpr std::chrono::milliseconds kRemoteAnswerLimit{2000};

// Devices that speak D-Bus on a local socket, peer to peer. Only sockets of root or of this
// process's user count, in a directory that belongs to one of them and that nobody else can write
// to. Of several, the first by name is the one.
class LinuxRemoteDevices : public RemoteDevices {
 public:
  explicit LinuxRemoteDevices(std::shared_ptr<const PlatformTree> tree,
                              std::chrono::milliseconds limit = kRemoteAnswerLimit);

  std::shared_ptr<RemoteDevice> uniqueDevice(std::uint32_t type) override;
  std::optional<Pipe> makePipe() override;

 private:
  const std::shared_ptr<const PlatformTree> tree_;
  const std::chrono::milliseconds limit_;
};

}  // namespace quillsift
