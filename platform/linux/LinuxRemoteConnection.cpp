#include "platform/linux/LinuxRemoteConnection.h"

#include <poll.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>
#include <utility>
#include <vector>

#include "platform/Mutex.h"
#include "platform/Text.h"
#include "platform/linux/BackgroundThread.h"
#include "platform/linux/BusMarshalling.h"
#include "platform/linux/RemoteDeviceBus.h"
#include "platform/linux/RemoteDictionaryReader.h"
#include "platform/linux/WakeDescriptor.h"

namespace quillsift {

namespace {

// Events that wait for the queue, before the device is no longer read from.
constexpr int kWaitingEvents = 16;

RemoteEvent errorEvent(int error) {
  return {.kind = RemoteEvent::Kind::error, .dictionary = {}, .text = systemErrorText(error)};
}

}  // namespace

class LinuxRemoteConnection::Link : public std::enable_shared_from_this<Link> {
 public:
  Link(BusPointer bus, std::string service, std::shared_ptr<SerialQueue> queue)
      : service_(std::move(service)), queue_(std::move(queue)), bus_(std::move(bus)) {}

  bool valid() const { return wake_.valid() && transfersEnd_->valid(); }

  void setEventHandler(EventHandler handler) {
    MutexLock lock(mutex_);
    handler_ = std::move(handler);
  }

  void activate() {
    if (!startBackgroundThread([self = shared_from_this()] { self->run(); })) {
      post(errorEvent(EAGAIN));
    }
  }

  void send(const RemoteDictionary& message) {
    {
      MutexLock lock(mutex_);
      outgoing_.push_back(message.values);
    }
    wake_.wake();
  }

  void cancel() {
    cancelled_ = true;
    transfersEnd_->wake();
    wake_.wake();
  }

 private:
  // The thread. The bus and what has been heard on it are its own.
  void run() {
    const int error = speak();
    bus_.reset();
    if (error != 0) post(errorEvent(error));
  }

  // 0 when cancelled, or why the connection has ended.
  int speak() {
    int result = sd_bus_add_filter(
        bus_.get(), nullptr,
        [](sd_bus_message* message, void* link, sd_bus_error*) {
          return static_cast<Link*>(link)->hear(message);
        },
        this);
    while (result >= 0 && !cancelled_) {
      result = sendOutgoing();
      const bool mayRead = waiting_ < kWaitingEvents;
      if (result >= 0 && mayRead) result = process();
      if (result == 0) wait(mayRead);
    }
    return std::max(-result, 0);
  }

  int process() {
    const int result = sd_bus_process(bus_.get(), nullptr);
    if (heardError_ != 0) return -heardError_;
    if (result >= 0 && isNotRead(bus_.get())) return -ENOBUFS;
    return result >= 0 && sd_bus_is_open(bus_.get()) <= 0 ? -ECONNRESET : result;
  }

  int sendOutgoing() {
    std::vector<WireDictionary> messages;
    {
      MutexLock lock(mutex_);
      messages.swap(outgoing_);
    }
    int result = 0;
    for (WireDictionary& dictionary : messages) {
      sd_bus_message* message = nullptr;
      if (result >= 0) {
        result =
            sd_bus_message_new_signal(bus_.get(), &message, kObjectPath, service_.c_str(), kMember);
      }
      const BusMessagePointer owned(message);
      if (result >= 0) {
        result = appendToBusMessage(message, {{.name = "message", .type = "a{sv}"}},
                                    {WireValue(std::move(dictionary))});
      }
      if (result >= 0) result = sd_bus_send(bus_.get(), message, nullptr);
    }
    return std::min(result, 0);
  }

  void wait(bool mayRead) {
    const int wanted = std::max(sd_bus_get_events(bus_.get()), 0);
    const int events = mayRead ? wanted : wanted & ~POLLIN;
    (void)waitUnlessWoken(events != 0 ? sd_bus_get_fd(bus_.get()) : -1, static_cast<short>(events),
                          wake_);
    wake_.clear();
  }

  int hear(sd_bus_message* message) {
    if (sd_bus_message_is_signal(message, service_.c_str(), nullptr) <= 0) return 0;
    RemoteEvent event;
    if (sd_bus_message_is_signal(message, service_.c_str(), kMember) > 0 &&
        sd_bus_message_has_signature(message, "a{sv}") > 0) {
      event.kind = RemoteEvent::Kind::dictionary;
      const int result = readRemoteDictionary(message, transfersEnd_, &event.dictionary);
      if (result < 0) heardError_ = -result;
    } else {
      event.text = std::string(sd_bus_message_get_member(message)) + "(" +
                   sd_bus_message_get_signature(message, 1) + ")";
    }
    if (heardError_ == 0) post(std::move(event));
    return 1;
  }

  void post(RemoteEvent event) {
    ++waiting_;
    queue_->async([self = shared_from_this(), event = std::move(event)] {
      self->deliver(event);
      --self->waiting_;
      self->wake_.wake();
    });
  }

  void deliver(const RemoteEvent& event) {
    EventHandler handler;
    {
      MutexLock lock(mutex_);
      handler = handler_;
    }
    if (!cancelled_ && handler) handler(event);
  }

  const std::string service_;
  const std::shared_ptr<SerialQueue> queue_;
  const WakeDescriptor wake_;
  const std::shared_ptr<const WakeDescriptor> transfersEnd_ =
      std::make_shared<const WakeDescriptor>();
  std::atomic<bool> cancelled_ = false;
  std::atomic<int> waiting_ = 0;
  BusPointer bus_;
  int heardError_ = 0;
  Mutex mutex_;
  EventHandler handler_ QS_GUARDED_BY(mutex_);
  std::vector<WireDictionary> outgoing_ QS_GUARDED_BY(mutex_);
};

std::shared_ptr<LinuxRemoteConnection> LinuxRemoteConnection::make(
    BusPointer bus, std::string service, std::shared_ptr<SerialQueue> queue) {
  auto link = std::make_shared<Link>(std::move(bus), std::move(service), std::move(queue));
  if (!link->valid()) return nullptr;
  return std::shared_ptr<LinuxRemoteConnection>(new LinuxRemoteConnection(std::move(link)));
}

LinuxRemoteConnection::LinuxRemoteConnection(std::shared_ptr<Link> link) : link_(std::move(link)) {}

LinuxRemoteConnection::~LinuxRemoteConnection() {
  link_->cancel();
}

void LinuxRemoteConnection::setEventHandler(EventHandler handler) {
  link_->setEventHandler(std::move(handler));
}

void LinuxRemoteConnection::activate() {
  link_->activate();
}

void LinuxRemoteConnection::send(const RemoteDictionary& message) {
  link_->send(message);
}

void LinuxRemoteConnection::cancel() {
  link_->cancel();
}

}  // namespace quillsift
