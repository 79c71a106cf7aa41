#include "platform/linux/LinuxServiceConnection.h"

#include <malloc.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/linux/BusMarshalling.h"

namespace quillsift {

namespace {

const WireMessage* messageNamed(const WireInterface& interface, const std::string& name) {
  const auto found = std::find_if(interface.messages.begin(), interface.messages.end(),
                                  [&](const WireMessage& message) { return message.name == name; });
  return found != interface.messages.end() ? &*found : nullptr;
}

}  // namespace

// What the handler holds of a request, in two places: the reply and the token. When the last of
// them goes, the request is over, and a caller that has not been answered gets the answer that
// there is without a result.
class LinuxServiceConnection::OpenRequest {
 public:
  OpenRequest(std::weak_ptr<LinuxServiceConnection> connection, std::uint64_t number,
              const WireMessage& type, bool replyDue)
      : connection_(std::move(connection)), number_(number), type_(type), answered_(!replyDue) {}
  ~OpenRequest() {
    if (const auto connection = connection_.lock()) {
      connection->requestDropped(number_, type_, answered_);
    }
  }
  OpenRequest(const OpenRequest&) = delete;
  OpenRequest& operator=(const OpenRequest&) = delete;

  void answer(std::vector<WireValue> results) {
    if (answered_.exchange(true)) return;
    if (const auto connection = connection_.lock()) {
      connection->answer(number_, type_, std::move(results));
    }
  }

 private:
  const std::weak_ptr<LinuxServiceConnection> connection_;
  const std::uint64_t number_;
  const WireMessage& type_;     // the connection's
  std::atomic<bool> answered_;  // also when no answer is wanted
};

std::shared_ptr<LinuxServiceConnection> LinuxServiceConnection::create(
    std::shared_ptr<ServiceHub> hub, ChannelSockets sockets, PeerCredentials peer) {
  std::shared_ptr<LinuxServiceConnection> connection(
      new LinuxServiceConnection(std::move(hub), std::move(sockets), std::move(peer)));
  connection->outgoing_ = std::make_unique<OutgoingQueue>(connection->hub_->budget(),
                                                          [weak = std::weak_ptr(connection)] {
                                                            if (const auto strong = weak.lock())
                                                              strong->giveUp();
                                                          });
  return connection;
}

LinuxServiceConnection::LinuxServiceConnection(std::shared_ptr<ServiceHub> hub,
                                               ChannelSockets sockets, PeerCredentials peer)
    : hub_(std::move(hub)), peer_(std::move(peer)), sockets_(std::move(sockets)) {}

std::optional<bool> LinuxServiceConnection::valueForEntitlement(const std::string& name) const {
  if (name != kPeerCapability) return std::nullopt;
  if (peer_.userIdentifier == 0 || peer_.userIdentifier == ::geteuid()) return true;
  const auto group = hub_->settings().capabilityGroup();
  return group && peer_.isInGroup(*group);
}

void LinuxServiceConnection::setExportedInterface(const WireInterface& interface,
                                                  std::weak_ptr<ServiceRequestHandler> handler) {
  exported_ = interface;
  handlers_.requests = std::move(handler);
}

void LinuxServiceConnection::setRemoteInterface(const WireInterface& interface) {
  remote_ = interface;
}

void LinuxServiceConnection::setInterruptionHandler(std::function<void()> handler) {
  handlers_.interruption = std::move(handler);
}

void LinuxServiceConnection::setInvalidationHandler(std::function<void()> handler) {
  handlers_.invalidation = std::move(handler);
}

void LinuxServiceConnection::setSendErrorHandler(std::function<void()> handler) {
  handlers_.sendError = std::move(handler);
}

void LinuxServiceConnection::resume() {
  hub_->thread().post([self = shared_from_this()] { self->start(); });
}

void LinuxServiceConnection::send(const std::string& notification,
                                  std::vector<WireValue> arguments) {
  const WireMessage* type = messageNamed(remote_, notification);
  const bool queued =
      type != nullptr && outgoing_->push({.kind = OutgoingMessage::Kind::notification,
                                          .type = type,
                                          .values = std::move(arguments)});
  if (!queued) sendFailed_ = true;
  wake();
}

void LinuxServiceConnection::answer(std::uint64_t request, const WireMessage& type,
                                    std::vector<WireValue> results) {
  // Refused only when the connection is on its way out.
  (void)outgoing_->push({.kind = OutgoingMessage::Kind::reply,
                         .request = request,
                         .type = &type,
                         .values = std::move(results)});
  wake();
}

void LinuxServiceConnection::requestDropped(std::uint64_t request, const WireMessage& type,
                                            bool answered) {
  if (!answered) {
    (void)outgoing_->push(
        {.kind = OutgoingMessage::Kind::failure, .request = request, .type = &type});
  }
  {
    const MutexLock lock(mutex_);
    dropped_.push_back(request);
  }
  wake();
}

void LinuxServiceConnection::invalidate() {
  hub_->thread().post([self = shared_from_this()] { self->end(); });
}

// On the thread of whoever sent the message that was one too many, perhaps to another peer.
void LinuxServiceConnection::giveUp() {
  outgoing_->close();
  sendFailed_ = true;  // at least what was queued has not been sent
  invalidate();
}

void LinuxServiceConnection::wake() {
  if (wakePosted_.exchange(true)) return;
  hub_->thread().post([self = shared_from_this()] { self->onWake(); });
}

void LinuxServiceConnection::start() {
  if (std::exchange(resumed_, true) || ended_) return;
  objects_ = std::make_unique<BusObjects>(exported_, remote_);
  const ServiceLimits& limits = hub_->settings().limits;
  channel_ = std::make_shared<BusChannel>(hub_->thread().context(),
                                          BusChannel::Limits{.messageBytes = limits.messageBytes,
                                                             .queuedAnswers = limits.openRequests,
                                                             .handshake = limits.handshake},
                                          peer_.userIdentifier, shared_from_this());
  channel_->open(std::move(sockets_));
}

void LinuxServiceConnection::onWake() {
  wakePosted_ = false;
  std::vector<std::uint64_t> dropped;
  {
    const MutexLock lock(mutex_);
    dropped.swap(dropped_);
  }
  for (const std::uint64_t request : dropped) {
    const auto found = requests_.find(request);
    if (found == requests_.end()) continue;
    found->second.inFlight = false;
    forgetIfDone(request);
  }
  if (sendFailed_.exchange(false) && resumed_ && handlers_.sendError) handlers_.sendError();
  if (channel_) channel_->pump();
}

int LinuxServiceConnection::exportObjects(sd_bus* bus) {
  return objects_->addTo(bus, *this);
}

bool LinuxServiceConnection::mayRead() const {
  return requests_.size() < hub_->settings().limits.openRequests;
}

int LinuxServiceConnection::handleCall(sd_bus_message* call) {
  const char* member = sd_bus_message_get_member(call);
  const WireMessage* type = messageNamed(exported_, member != nullptr ? member : "");
  const auto handler = handlers_.requests.lock();
  if (type == nullptr || !handler) return -ENOTCONN;
  ServiceRequest request;
  request.method = type->name;
  const int result = readFromBusMessage(call, type->arguments, &request.arguments);
  if (result < 0) return result;

  const std::uint64_t number = ++lastRequest_;
  const bool replyDue = sd_bus_message_get_expect_reply(call) > 0;
  requests_.emplace(number, PendingRequest{.call = BusMessagePointer(sd_bus_message_ref(call)),
                                           .type = type,
                                           .replyDue = replyDue});
  const auto open = std::make_shared<OpenRequest>(weak_from_this(), number, *type, replyDue);
  request.inFlight = open;
  if (replyDue) {
    request.reply = [open](std::vector<WireValue> results) { open->answer(std::move(results)); };
  }
  handler->handleRequest(std::move(request));
  return 0;
}

void LinuxServiceConnection::forgetIfDone(std::uint64_t request) {
  const auto found = requests_.find(request);
  if (found != requests_.end() && !found->second.inFlight && !found->second.replyDue) {
    requests_.erase(found);
  }
}

BusChannelOwner::Fed LinuxServiceConnection::feed(sd_bus* bus) {
  if (outgoing_->settle()) ::malloc_trim(0);
  const auto message = outgoing_->pop();
  if (!message) return Fed::nothing;
  const BusMessagePointer wire = encoded(bus, *message);
  if (message->kind != OutgoingMessage::Kind::notification) {
    const auto found = requests_.find(message->request);
    if (found != requests_.end()) found->second.replyDue = false;
    forgetIfDone(message->request);
  }
  if (!wire) return Fed::message;
  return sd_bus_send(bus, wire.get(), nullptr) >= 0 ? Fed::message : Fed::refused;
}

// None when there is nothing that could be sent.
BusMessagePointer LinuxServiceConnection::encoded(sd_bus* bus, const OutgoingMessage& message) {
  if (message.kind != OutgoingMessage::Kind::notification) return encodedReply(message);
  BusMessagePointer wire = encodedNotification(bus, message);
  if (!wire && handlers_.sendError) handlers_.sendError();
  return wire;
}

BusMessagePointer LinuxServiceConnection::encodedNotification(sd_bus* bus,
                                                              const OutgoingMessage& message) {
  sd_bus_message* wire = nullptr;
  int result = sd_bus_message_new_signal(bus, &wire, kServiceObjectPath, remote_.name.c_str(),
                                         message.type->name.c_str());
  BusMessagePointer owned(wire);
  if (result >= 0) result = appendToBusMessage(wire, message.type->arguments, message.values);
  return result >= 0 ? std::move(owned) : nullptr;
}

BusMessagePointer LinuxServiceConnection::encodedReply(const OutgoingMessage& message) {
  const auto found = requests_.find(message.request);
  if (found == requests_.end() || !found->second.replyDue) return nullptr;
  sd_bus_message* call = found->second.call.get();
  sd_bus_message* wire = nullptr;
  if (message.kind == OutgoingMessage::Kind::reply) {
    int result = sd_bus_message_new_method_return(call, &wire);
    BusMessagePointer owned(wire);
    if (result >= 0) result = appendToBusMessage(wire, message.type->results, message.values);
    if (result >= 0) return owned;
    wire = nullptr;
  }
  const int result = sd_bus_message_new_method_errorf(
      call, &wire, SD_BUS_ERROR_FAILED, "%s gave no answer.", message.type->name.c_str());
  return result >= 0 ? BusMessagePointer(wire) : nullptr;
}

void LinuxServiceConnection::channelEnded(bool interrupted) {
  if (std::exchange(ended_, true)) return;
  hub_->remove(*this);
  if (channel_) channel_->close();
  channel_.reset();
  requests_.clear();
  sockets_ = {};
  if (outgoing_->close()) ::malloc_trim(0);
  // Dropped whatever happens, so that nothing they hold can keep this connection.
  const Handlers handlers = std::exchange(handlers_, {});
  if (!resumed_) return;
  if (sendFailed_.exchange(false) && handlers.sendError) handlers.sendError();
  if (interrupted && handlers.interruption) handlers.interruption();
  if (handlers.invalidation) handlers.invalidation();
}

}  // namespace quillsift
