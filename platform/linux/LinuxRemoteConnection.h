#pragma once

#include <memory>
#include <string>

#include "platform/RemoteMessages.h"
#include "platform/WorkQueues.h"
#include "platform/linux/BusPointers.h"

namespace quillsift {

// Messages are signals "Message" of an interface named like the service, with one a{sv} each way.
// A handle (h) in it is a file; values of types that a WireValue does not know are left out. Any
// other signal of the interface is an event of another type; what is not of it is not heard.
//
// A thread of its own speaks with the device, until the end of the connection or cancel.
class LinuxRemoteConnection : public RemoteConnection {
 public:
  // Where a message comes from on the wire.
  static constexpr const char* kObjectPath = "/io/vantor/omnitrawl/remote";
  static constexpr const char* kMember = "Message";

  // Takes over a bus that is ready. Null when descriptors have run out.
  static std::shared_ptr<LinuxRemoteConnection> make(BusPointer bus, std::string service,
                                                     std::shared_ptr<SerialQueue> queue);
  ~LinuxRemoteConnection() override;

  void setEventHandler(EventHandler handler) override;
  void activate() override;
  void send(const RemoteDictionary& message) override;
  void cancel() override;

 private:
  class Link;

  explicit LinuxRemoteConnection(std::shared_ptr<Link> link);

  const std::shared_ptr<Link> link_;  // shared with its thread and with events on their way
};

}  // namespace quillsift
