#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/PipeHandles.h"
#include "platform/RemoteMessages.h"
#include "platform/SystemValue.h"
#include "platform/WorkQueues.h"

namespace quillsift {

enum class RemoteDeviceState : std::uint32_t {
  attached = 1,   // known, but nobody answers
  connected = 2,  // can be talked to
};

// Something that a remote device offers under a name.
class RemoteDeviceService {
 public:
  virtual ~RemoteDeviceService() = default;

  // A connection that delivers its events on `queue`; null when none can be made.
  virtual std::shared_ptr<RemoteConnection> makeConnection(std::shared_ptr<SerialQueue> queue) = 0;
};

// A device beside the host that can be talked to, such as its companion processor.
class RemoteDevice {
 public:
  virtual ~RemoteDevice() = default;

  virtual std::string name() const = 0;
  // What the device says about itself, by the name of each property, which is bytes. None when it
  // cannot be asked.
  virtual std::optional<SystemValue::Dictionary> properties() = 0;
  virtual RemoteDeviceState state() = 0;
  // Null when the device does not offer the service, or does not say so within a short limit.
  virtual std::shared_ptr<RemoteDeviceService> service(const std::string& name) = 0;
};

class RemoteDevices {
 public:
  virtual ~RemoteDevices() = default;

  // The one device of this type; null when there is none.
  virtual std::shared_ptr<RemoteDevice> uniqueDevice(std::uint32_t type) = 0;
  // A pipe for a transfer to write into; none when the system has none to give.
  virtual std::optional<Pipe> makePipe() = 0;
};

}  // namespace quillsift
