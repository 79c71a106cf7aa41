#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Mutex.h"
#include "platform/RemoteDevices.h"

namespace quillsift {

// A file that comes when the test says. Any thread.
class FakeFileTransfer : public RemoteFileTransfer {
 public:
  void writeTo(FileDescriptor destination, Completion completion) override {
    if (!destination.valid()) return completion(EBADF);
    MutexLock lock(mutex_);
    destination_ = std::move(destination);
    completion_ = std::move(completion);
  }

  // Where to write; -1 when nobody has asked or the transfer has ended.
  int destination() const {
    MutexLock lock(mutex_);
    return destination_.get();
  }
  // Writes there, unless the transfer ends first: who writes to the bare descriptor while others
  // may end the transfer writes to whatever has its number by then. False when nothing was written.
  bool write(std::string_view bytes) {
    MutexLock lock(mutex_);
    return destination_.valid() && ::write(destination_.get(), bytes.data(), bytes.size()) ==
                                       static_cast<ssize_t>(bytes.size());
  }
  // Completes, and closes the destination behind it. False when there is nothing to end.
  bool end(int error) {
    FileDescriptor destination;
    Completion completion;
    {
      MutexLock lock(mutex_);
      destination = std::move(destination_);
      completion = std::exchange(completion_, nullptr);
    }
    if (completion) completion(error);
    return completion != nullptr;
  }

 private:
  mutable Mutex mutex_;
  FileDescriptor destination_ QS_GUARDED_BY(mutex_);
  Completion completion_ QS_GUARDED_BY(mutex_);
};

// The test's end of a connection. Any thread.
class FakeRemoteConnection : public RemoteConnection,
                             public std::enable_shared_from_this<FakeRemoteConnection> {
 public:
  explicit FakeRemoteConnection(std::shared_ptr<SerialQueue> queue) : queue_(std::move(queue)) {}

  void setEventHandler(EventHandler handler) override {
    MutexLock lock(mutex_);
    handler_ = std::move(handler);
  }
  void activate() override {
    MutexLock lock(mutex_);
    active_ = true;
  }
  void send(const RemoteDictionary& message) override {
    MutexLock lock(mutex_);
    sent_.push_back(message);
  }
  void cancel() override {
    std::vector<std::shared_ptr<FakeFileTransfer>> files;
    {
      MutexLock lock(mutex_);
      cancelled_ = true;
      files.swap(files_);
    }
    for (const auto& file : files)
      file->end(ECANCELED);
  }

  // Delivers an event on the queue.
  void deliver(RemoteEvent event) {
    queue_->async([self = shared_from_this(), event = std::move(event)] { self->handle(event); });
  }
  void deliver(RemoteDictionary dictionary) {
    deliver(RemoteEvent{RemoteEvent::Kind::dictionary, std::move(dictionary), ""});
  }
  // A file that ends with the connection.
  std::shared_ptr<FakeFileTransfer> makeFile() {
    MutexLock lock(mutex_);
    return files_.emplace_back(std::make_shared<FakeFileTransfer>());
  }

  std::shared_ptr<SerialQueue> queue() const { return queue_; }
  bool active() const {
    MutexLock lock(mutex_);
    return active_;
  }
  bool cancelled() const {
    MutexLock lock(mutex_);
    return cancelled_;
  }
  std::vector<RemoteDictionary> sent() const {
    MutexLock lock(mutex_);
    return sent_;
  }

 private:
  void handle(const RemoteEvent& event) {
    EventHandler handler;
    {
      MutexLock lock(mutex_);
      if (!active_ || cancelled_) return;
      handler = handler_;
    }
    if (handler) handler(event);
  }

  const std::shared_ptr<SerialQueue> queue_;
  mutable Mutex mutex_;
  EventHandler handler_ QS_GUARDED_BY(mutex_);
  bool active_ QS_GUARDED_BY(mutex_) = false;
  bool cancelled_ QS_GUARDED_BY(mutex_) = false;
  std::vector<RemoteDictionary> sent_ QS_GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<FakeFileTransfer>> files_ QS_GUARDED_BY(mutex_);
};

// A service whose connections the test keeps. Fields before use.
class FakeRemoteDeviceService : public RemoteDeviceService {
 public:
  bool refusesConnections = false;

  std::shared_ptr<RemoteConnection> makeConnection(std::shared_ptr<SerialQueue> queue) override {
    if (refusesConnections) return nullptr;
    MutexLock lock(mutex_);
    return connections_.emplace_back(std::make_shared<FakeRemoteConnection>(std::move(queue)));
  }
  // The newest; null before the first.
  std::shared_ptr<FakeRemoteConnection> connection() const {
    MutexLock lock(mutex_);
    return connections_.empty() ? nullptr : connections_.back();
  }

 private:
  mutable Mutex mutex_;
  std::vector<std::shared_ptr<FakeRemoteConnection>> connections_ QS_GUARDED_BY(mutex_);
};

// Connected and without a service, until the test says otherwise. Fields before use.
class FakeRemoteDevice : public RemoteDevice {
 public:
  explicit FakeRemoteDevice(std::string name) : name_(std::move(name)) {}

  // Set before others use it.
  std::optional<SystemValue::Dictionary> propertiesToGive;
  RemoteDeviceState currentState = RemoteDeviceState::connected;
  std::map<std::string, std::shared_ptr<RemoteDeviceService>> services;

  std::string name() const override { return name_; }
  std::optional<SystemValue::Dictionary> properties() override { return propertiesToGive; }
  RemoteDeviceState state() override { return currentState; }
  std::shared_ptr<RemoteDeviceService> service(const std::string& name) override {
    const auto service = services.find(name);
    return service == services.end() ? nullptr : service->second;
  }

 private:
  const std::string name_;
};

// Devices by type; none until the test adds one, and no pipes until it says where they come from.
// Any thread.
class FakeRemoteDevices : public RemoteDevices {
 public:
  using PipeSource = std::function<std::optional<Pipe>()>;

  void add(std::uint32_t type, std::shared_ptr<RemoteDevice> device) {
    MutexLock lock(mutex_);
    devices_[type] = std::move(device);
  }
  void takePipesFrom(PipeSource source) {
    MutexLock lock(mutex_);
    pipeSource_ = std::move(source);
  }
  std::vector<std::uint32_t> typesAsked() const {
    MutexLock lock(mutex_);
    return typesAsked_;
  }

  std::shared_ptr<RemoteDevice> uniqueDevice(std::uint32_t type) override {
    MutexLock lock(mutex_);
    typesAsked_.push_back(type);
    const auto device = devices_.find(type);
    return device == devices_.end() ? nullptr : device->second;
  }
  std::optional<Pipe> makePipe() override {
    MutexLock lock(mutex_);
    return pipeSource_ ? pipeSource_() : std::nullopt;
  }

 private:
  mutable Mutex mutex_;
  std::map<std::uint32_t, std::shared_ptr<RemoteDevice>> devices_ QS_GUARDED_BY(mutex_);
  std::vector<std::uint32_t> typesAsked_ QS_GUARDED_BY(mutex_);
  PipeSource pipeSource_ QS_GUARDED_BY(mutex_);
};

}  // namespace quillsift
