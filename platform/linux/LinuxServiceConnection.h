#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Mutex.h"
#include "platform/ServiceConnections.h"
#include "platform/linux/BusChannel.h"
#include "platform/linux/BusObjects.h"
#include "platform/linux/BusPointers.h"
#include "platform/linux/OutgoingQueue.h"
#include "platform/linux/PeerCredentials.h"
#include "platform/linux/ServiceHub.h"

namespace quillsift {

// One accepted peer, spoken to over a BusChannel. Whatever comes from other threads (messages to
// send, ended requests, the wish to end) is left in queues, and the service thread is woken.
//
// The channel keeps the connection alive from resume until it has ended; before and after that its
// holders do.
class LinuxServiceConnection final : public ServiceConnection,
                                     public BusChannelOwner,
                                     public BusCallHandler,
                                     public std::enable_shared_from_this<LinuxServiceConnection> {
 public:
  static std::shared_ptr<LinuxServiceConnection> create(std::shared_ptr<ServiceHub> hub,
                                                        ChannelSockets sockets,
                                                        PeerCredentials peer);
  ~LinuxServiceConnection() override = default;

  pid_t processIdentifier() const override { return peer_.processIdentifier; }
  // The kernel stamps no audit session on a socket, and a look at the process would be a guess.
  std::int32_t auditSessionIdentifier() const override { return 0; }
  uid_t effectiveUserIdentifier() const override { return peer_.userIdentifier; }
  // The capability is held by uid 0, by our own uid and by the members of the capability group.
  std::optional<bool> valueForEntitlement(const std::string& name) const override;

  void setExportedInterface(const WireInterface& interface,
                            std::weak_ptr<ServiceRequestHandler> handler) override;
  void setRemoteInterface(const WireInterface& interface) override;
  void setInterruptionHandler(std::function<void()> handler) override;
  void setInvalidationHandler(std::function<void()> handler) override;
  void setSendErrorHandler(std::function<void()> handler) override;

  void resume() override;
  void send(const std::string& notification, std::vector<WireValue> arguments) override;
  void invalidate() override;

  // Ends the connection now. On the service thread; a second call does nothing.
  void end() { channelEnded(false); }

 private:
  class OpenRequest;

  struct Handlers {
    std::weak_ptr<ServiceRequestHandler> requests;
    std::function<void()> interruption;
    std::function<void()> invalidation;
    std::function<void()> sendError;
  };
  // A request that has been read and not wholly dealt with.
  struct PendingRequest {
    BusMessagePointer call;
    const WireMessage* type = nullptr;
    bool replyDue = false;
    bool inFlight = true;  // the handler still holds it
  };

  LinuxServiceConnection(std::shared_ptr<ServiceHub> hub, ChannelSockets sockets,
                         PeerCredentials peer);

  // Any thread.
  void answer(std::uint64_t request, const WireMessage& type, std::vector<WireValue> results);
  void requestDropped(std::uint64_t request, const WireMessage& type, bool answered);
  void giveUp();
  void wake();

  // The service thread.
  void start();
  void onWake();
  int exportObjects(sd_bus* bus) override;
  bool mayRead() const override;
  Fed feed(sd_bus* bus) override;
  void channelEnded(bool interrupted) override;
  int handleCall(sd_bus_message* call) override;
  void forgetIfDone(std::uint64_t request);
  BusMessagePointer encoded(sd_bus* bus, const OutgoingMessage& message);
  BusMessagePointer encodedNotification(sd_bus* bus, const OutgoingMessage& message);
  BusMessagePointer encodedReply(const OutgoingMessage& message);

  const std::shared_ptr<ServiceHub> hub_;
  const PeerCredentials peer_;
  // Set before resume, not changed after.
  WireInterface exported_;
  WireInterface remote_;
  Handlers handlers_;  // after resume the service thread's, emptied at the end

  std::unique_ptr<OutgoingQueue> outgoing_;  // never null once created
  std::atomic<bool> wakePosted_ = false;
  std::atomic<bool> sendFailed_ = false;
  Mutex mutex_;
  std::vector<std::uint64_t> dropped_ QS_GUARDED_BY(mutex_);  // requests the handler has let go

  // The service thread's.
  ChannelSockets sockets_;  // until the channel takes them
  std::unique_ptr<BusObjects> objects_;
  std::shared_ptr<BusChannel> channel_;
  std::map<std::uint64_t, PendingRequest> requests_;
  std::uint64_t lastRequest_ = 0;
  bool resumed_ = false;
  bool ended_ = false;
};

}  // namespace quillsift
