#include "tests/doubles/FakeServiceConnections.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "platform/Platform.h"

namespace quillsift {

namespace {

constexpr std::chrono::seconds kPatience{60};

[[noreturn]] void misuse(const char* what, const std::string& name) {
  std::fprintf(stderr, "FakeServiceConnection: %s: %s\n", what, name.c_str());
  std::abort();
}

bool fits(const WireValue& value, std::string_view type) {
  if (type == "b") return value.as<bool>() != nullptr;
  if (type == "x") return value.as<std::int64_t>() != nullptr;
  if (type == "t") return value.as<std::uint64_t>() != nullptr;
  if (type == "d") return value.as<double>() != nullptr;
  if (type == "s") return value.as<std::string>() != nullptr;
  if (type == "a{sv}") return value.as<WireDictionary>() != nullptr;
  const auto* array = value.as<WireArray>();
  if (!type.starts_with("a") || array == nullptr) return false;
  return std::all_of(array->begin(), array->end(),
                     [=](const WireValue& element) { return fits(element, type.substr(1)); });
}

void requireFit(const std::vector<WireValue>& values, const std::vector<WireArgument>& arguments,
                const std::string& message) {
  if (values.size() != arguments.size()) misuse("wrong number of arguments", message);
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (!fits(values[i], arguments[i].type)) misuse("an argument of another type", message);
  }
}

const WireMessage& messageOf(const WireInterface& interface, const std::string& name) {
  const auto found = std::find_if(interface.messages.begin(), interface.messages.end(),
                                  [&](const WireMessage& message) { return message.name == name; });
  if (found == interface.messages.end()) misuse("no such message in the interface", name);
  return *found;
}

}  // namespace

FakeServiceConnection::FakeServiceConnection(FakePeer peer) : peer_(std::move(peer)) {}

// --- the peer's side

std::size_t FakeServiceConnection::request(const std::string& method,
                                           std::vector<WireValue> arguments, bool wantsReply) {
  std::size_t number = 0;
  {
    MutexLock lock(mutex_);
    if (!resumed_) misuse("a request before resume", method);
    number = requests_++;
    if (invalidated_) return number;
  }
  const WireMessage& message = messageOf(exported_, method);
  requireFit(arguments, message.arguments, method);
  const std::shared_ptr<ServiceRequestHandler> handler = handler_.lock();
  if (!handler) return number;
  ServiceRequest request;
  request.method = method;
  request.arguments = std::move(arguments);
  if (wantsReply) request.reply = replyFunction(message, number);
  request.inFlight = std::make_shared<std::shared_ptr<int>>(inFlight_);
  handler->handleRequest(std::move(request));
  return number;
}

std::function<void(std::vector<WireValue>)> FakeServiceConnection::replyFunction(
    const WireMessage& message, std::size_t request) {
  return [connection = weak_from_this(), message, request,
          answered = std::make_shared<std::atomic<bool>>(false)](std::vector<WireValue> results) {
    if (answered->exchange(true)) misuse("a second reply", message.name);
    requireFit(results, message.results, message.name);
    if (const auto living = connection.lock()) {
      living->receive({true, message.name, std::move(results), request});
    }
  };
}

void FakeServiceConnection::receive(Received message) {
  MutexLock lock(mutex_);
  if (invalidated_) return;
  received_.push_back(std::move(message));
  changed_.notify_all();
}

std::vector<FakeServiceConnection::Received> FakeServiceConnection::received() const {
  MutexLock lock(mutex_);
  return received_;
}

std::optional<std::vector<WireValue>> FakeServiceConnection::reply(std::size_t request) const {
  MutexLock lock(mutex_);
  for (const Received& message : received_) {
    if (message.isReply && message.request == request) return message.arguments;
  }
  return std::nullopt;
}

std::vector<std::vector<WireValue>> FakeServiceConnection::notifications(
    const std::string& name) const {
  MutexLock lock(mutex_);
  std::vector<std::vector<WireValue>> found;
  for (const Received& message : received_) {
    if (!message.isReply && message.name == name) found.push_back(message.arguments);
  }
  return found;
}

void FakeServiceConnection::waitForReceived(std::size_t count) const {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  MutexLock lock(mutex_);
  while (received_.size() < count) {
    if (changed_.wait_until(mutex_, deadline) == std::cv_status::timeout &&
        received_.size() < count) {
      misuse("messages missing",
             std::to_string(received_.size()) + " instead of " + std::to_string(count));
    }
  }
}

void FakeServiceConnection::fireInterruption() {
  {
    MutexLock lock(mutex_);
    if (!resumed_ || gone_) return;
  }
  if (interruptionHandler_) interruptionHandler_();
}

void FakeServiceConnection::fireInvalidation() {
  std::function<void()> handler;
  {
    MutexLock lock(mutex_);
    invalidated_ = true;
    if (!resumed_ || gone_) return;
    gone_ = true;
    handler.swap(invalidationHandler_);
  }
  if (handler) handler();
}

void FakeServiceConnection::fireSendError() {
  {
    MutexLock lock(mutex_);
    if (!resumed_ || gone_) return;
  }
  if (sendErrorHandler_) sendErrorHandler_();
}

void FakeServiceConnection::failSends(bool fail) {
  MutexLock lock(mutex_);
  failSends_ = fail;
}

bool FakeServiceConnection::isResumed() const {
  MutexLock lock(mutex_);
  return resumed_;
}

bool FakeServiceConnection::isInvalidated() const {
  MutexLock lock(mutex_);
  return invalidated_;
}

std::size_t FakeServiceConnection::requestsInFlight() const {
  return static_cast<std::size_t>(inFlight_.use_count() - 1);
}

// --- the daemon's side

std::optional<bool> FakeServiceConnection::valueForEntitlement(const std::string& name) const {
  const auto entitlement = peer_.entitlements.find(name);
  if (entitlement == peer_.entitlements.end()) return std::nullopt;
  return entitlement->second;
}

void FakeServiceConnection::requireNotResumed(const char* call) const {
  if (isResumed()) misuse("set after resume", call);
}

void FakeServiceConnection::setExportedInterface(const WireInterface& interface,
                                                 std::weak_ptr<ServiceRequestHandler> handler) {
  requireNotResumed("the exported interface");
  exported_ = interface;
  handler_ = std::move(handler);
}

void FakeServiceConnection::setRemoteInterface(const WireInterface& interface) {
  requireNotResumed("the remote interface");
  remote_ = interface;
}

void FakeServiceConnection::setInterruptionHandler(std::function<void()> handler) {
  requireNotResumed("the interruption handler");
  interruptionHandler_ = std::move(handler);
}

void FakeServiceConnection::setInvalidationHandler(std::function<void()> handler) {
  MutexLock lock(mutex_);
  if (resumed_) misuse("set after resume", "the invalidation handler");
  invalidationHandler_ = std::move(handler);
}

void FakeServiceConnection::setSendErrorHandler(std::function<void()> handler) {
  requireNotResumed("the send error handler");
  sendErrorHandler_ = std::move(handler);
}

void FakeServiceConnection::resume() {
  MutexLock lock(mutex_);
  resumed_ = true;
}

void FakeServiceConnection::send(const std::string& notification,
                                 std::vector<WireValue> arguments) {
  requireFit(arguments, messageOf(remote_, notification).arguments, notification);
  {
    MutexLock lock(mutex_);
    if (failSends_) return;
  }
  receive({false, notification, std::move(arguments), 0});
}

void FakeServiceConnection::invalidate() {
  MutexLock lock(mutex_);
  invalidated_ = true;
}

// --- listeners

class FakeServiceConnections::Listener : public ServiceListener {
 public:
  Listener(FakeServiceConnections& connections, std::shared_ptr<Endpoint> endpoint)
      : connections_(connections), endpoint_(std::move(endpoint)) {}
  ~Listener() override {
    MutexLock lock(connections_.mutex_);
    endpoint_->resumed = false;
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  void setAcceptHandler(AcceptHandler handler) override {
    MutexLock lock(connections_.mutex_);
    endpoint_->accept = std::move(handler);
  }

  bool resume(QSError* error) override {
    MutexLock lock(connections_.mutex_);
    if (connections_.resumeError_) {
      setError(error, *connections_.resumeError_);
      return false;
    }
    endpoint_->resumed = true;
    return true;
  }

 private:
  FakeServiceConnections& connections_;
  const std::shared_ptr<Endpoint> endpoint_;
};

std::unique_ptr<ServiceListener> FakeServiceConnections::makeListener(
    const std::string& serviceName) {
  auto endpoint = std::make_shared<Endpoint>();
  MutexLock lock(mutex_);
  serviceNames_.push_back(serviceName);
  endpoints_[serviceName] = endpoint;
  return std::make_unique<Listener>(*this, std::move(endpoint));
}

std::shared_ptr<SerialQueue> FakeServiceConnections::makeQueue(const std::string& label,
                                                               QOSClass qos) {
  return Platform::current().workQueues->makeSerialQueue(label, qos);
}

FakeServiceConnections::Admission FakeServiceConnections::connect(const std::string& serviceName,
                                                                  FakePeer peer) {
  ServiceListener::AcceptHandler accept;
  {
    MutexLock lock(mutex_);
    const auto endpoint = endpoints_.find(serviceName);
    if (endpoint == endpoints_.end() || !endpoint->second->resumed) return {};
    accept = endpoint->second->accept;
  }
  auto connection = std::make_shared<FakeServiceConnection>(std::move(peer));
  const bool accepted = accept && accept(connection);
  if (!accepted) connection->invalidate();
  return {std::move(connection), accepted};
}

void FakeServiceConnections::failResume(QSError error) {
  MutexLock lock(mutex_);
  resumeError_ = std::move(error);
}

std::vector<std::string> FakeServiceConnections::serviceNames() const {
  MutexLock lock(mutex_);
  return serviceNames_;
}

}  // namespace quillsift
