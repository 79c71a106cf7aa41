#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/RemoteService.h"
#include "platform/ServiceConnections.h"
#include "platform/linux/LinuxWorkQueues.h"
#include "platform/linux/ServiceConnectionSettings.h"

namespace quillsift::testing {

// Against hangs only: nothing here takes this long.
inline constexpr std::chrono::seconds kLimit{60};

inline constexpr const char* kTestService = "io.vantor.test";

// echo(s text, b flag, x number, t size, d fraction) -> the same
// records() -> (aa{sv} records, ad dates)
// hold() -> (b done), clear()
const WireInterface& testMethods();
// changed(a{sv} info), progress(d fraction, x state, s path), started()
const WireInterface& testNotifications();
// One job record with all kinds of values.
WireDictionary testRecord(std::uint64_t size);

// A directory of its own, removed at the end.
class ScratchDirectory {
 public:
  ScratchDirectory();
  ~ScratchDirectory();
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  std::string path(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// What the service saw of one peer. Requests are answered by `onRequest`, else kept.
class TestPeer : public ServiceRequestHandler, public std::enable_shared_from_this<TestPeer> {
 public:
  explicit TestPeer(std::shared_ptr<ServiceConnection> connection)
      : connection_(std::move(connection)) {}

  ServiceConnection& connection() { return *connection_; }
  void install();
  void handleRequest(ServiceRequest request) override;

  // The events so far: names of requests, "interrupted", "invalidated", "send error".
  std::vector<std::string> events();
  // Waits until `count` events of this name have come.
  bool waitFor(const std::string& event, std::size_t count = 1);
  std::size_t count(const std::string& event);
  // The requests that are kept.
  std::vector<ServiceRequest> takeRequests();
  // Drops our hold of the connection.
  void forget() { connection_.reset(); }

 private:
  void note(const std::string& event);
  bool answer(ServiceRequest& request);

  std::shared_ptr<ServiceConnection> connection_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> events_;
  std::vector<ServiceRequest> kept_;
};

// A service on a socket of its own.
class TestService {
 public:
  explicit TestService(ServiceConnectionSettings settings = {}, bool admitEverybody = true);
  ~TestService();

  const std::string& socketPath() const { return socketPath_; }
  std::string address() const { return "unix:path=" + socketPath_; }
  // The peer that came as the `index`th; waits for it.
  std::shared_ptr<TestPeer> peer(std::size_t index = 0);
  std::size_t accepted();
  std::size_t refused();
  bool waitForRefused(std::size_t count);
  // Ends the service before the object.
  void stop();
  // A client of ours, connected. Throws when there is none, as does `peer`: the test is over then.
  std::unique_ptr<RemoteService> connect();

 private:
  bool accept(std::shared_ptr<ServiceConnection> connection);

  const ScratchDirectory directory_;
  const std::string socketPath_;
  const bool admitEverybody_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::shared_ptr<TestPeer>> peers_;
  std::size_t refused_ = 0;
  LinuxWorkQueues queues_;
  std::unique_ptr<ServiceConnections> connections_;
  std::unique_ptr<ServiceListener> listener_;
};

}  // namespace quillsift::testing
