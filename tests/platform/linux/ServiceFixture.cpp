#include "tests/platform/linux/ServiceFixture.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "platform/linux/LinuxRemoteServiceConnector.h"
#include "platform/linux/LinuxServiceConnections.h"
#include "platform/linux/PeerCredentials.h"

namespace quillsift::testing {

const WireInterface& testMethods() {
  static const std::vector<WireArgument> all = {
      {"text", "s"}, {"flag", "b"}, {"number", "x"}, {"size", "t"}, {"fraction", "d"}};
  static const WireInterface interface {
    .name = "io.vantor.test.Methods", .messages = {
      {.name = "echo", .arguments = all, .results = all},
      {.name = "records", .arguments = {}, .results = {{"records", "aa{sv}"}, {"dates", "ad"}}},
      {.name = "hold", .arguments = {}, .results = {{"done", "b"}}},
      {.name = "clear", .arguments = {}, .results = {}},
    }
  };
  return interface;
}

const WireInterface& testNotifications() {
  static const WireInterface interface {
    .name = "io.vantor.test.Notifications", .messages = {
      {.name = "changed", .arguments = {{"info", "a{sv}"}}, .results = {}},
      {.name = "progress",
       .arguments = {{"fraction", "d"}, {"state", "x"}, {"path", "s"}},
       .results = {}},
      {.name = "started", .arguments = {}, .results = {}},
    }
  };
  return interface;
}

WireDictionary testRecord(std::uint64_t size) {
  return {{"QSJobInfoUUID", WireValue("4F1C0B2A-0000-4000-8000-000000000001")},
          {"QSJobInfoRelativeFilePathAndName", WireValue("logs/ünïcode.log")},
          {"QSJobInfoSize", WireValue(size)},
          {"QSJobInfoDateFinished", WireValue(1700000000.25)},
          {"QSJobInfoJobStatus", WireValue(std::int64_t{-4})},
          {"QSJobInfoSensitive", WireValue(true)}};
}

ScratchDirectory::ScratchDirectory() {
  char path[] = "/tmp/quillsift-wire-XXXXXX";
  path_ = ::mkdtemp(path) != nullptr ? path : "";
  ::chmod(path_.c_str(), 0755);  // other users come here too
}

ScratchDirectory::~ScratchDirectory() {
  std::error_code ignored;
  if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

void TestPeer::install() {
  connection_->setExportedInterface(testMethods(), weak_from_this());
  connection_->setRemoteInterface(testNotifications());
  const auto noteLater = [weak = weak_from_this()](const char* event) {
    return [weak, event] {
      if (const auto self = weak.lock()) self->note(event);
    };
  };
  connection_->setInterruptionHandler(noteLater("interrupted"));
  connection_->setInvalidationHandler(noteLater("invalidated"));
  connection_->setSendErrorHandler(noteLater("send error"));
}

void TestPeer::handleRequest(ServiceRequest request) {
  const std::string method = request.method;
  if (!answer(request)) {
    const std::lock_guard lock(mutex_);
    kept_.push_back(std::move(request));
  }
  note(method);
}

bool TestPeer::answer(ServiceRequest& request) {
  if (request.method == "clear") {
    if (request.reply) request.reply({});
    return true;
  }
  if (request.method == "echo") {
    if (request.reply) request.reply(request.arguments);
    return true;
  }
  if (request.method == "records" && request.reply) {
    WireArray records;
    records.emplace_back(testRecord(17));
    records.emplace_back(WireDictionary{});
    WireArray dates;
    dates.emplace_back(12.5);
    std::vector<WireValue> results;
    results.emplace_back(std::move(records));
    results.emplace_back(std::move(dates));
    request.reply(std::move(results));
    return true;
  }
  return false;
}

void TestPeer::note(const std::string& event) {
  {
    const std::lock_guard lock(mutex_);
    events_.push_back(event);
  }
  changed_.notify_all();
}

std::vector<std::string> TestPeer::events() {
  const std::lock_guard lock(mutex_);
  return events_;
}

std::size_t TestPeer::count(const std::string& event) {
  const std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count(events_.begin(), events_.end(), event));
}

bool TestPeer::waitFor(const std::string& event, std::size_t count) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, kLimit, [&] {
    return static_cast<std::size_t>(std::count(events_.begin(), events_.end(), event)) >= count;
  });
}

std::vector<ServiceRequest> TestPeer::takeRequests() {
  const std::lock_guard lock(mutex_);
  return std::exchange(kept_, {});
}

TestService::TestService(ServiceConnectionSettings settings, bool admitEverybody)
    : socketPath_(directory_.path("run/socket")), admitEverybody_(admitEverybody) {
  connections_ =
      std::make_unique<LinuxServiceConnections>(queues_, socketPath_, std::move(settings));
  listener_ = connections_->makeListener(kTestService);
  listener_->setAcceptHandler(
      [this](std::shared_ptr<ServiceConnection> connection) { return accept(connection); });
  QSError error;
  EXPECT_TRUE(listener_->resume(&error)) << error.description();
}

TestService::~TestService() {
  stop();
}

void TestService::stop() {
  listener_.reset();
  connections_.reset();
}

bool TestService::accept(std::shared_ptr<ServiceConnection> connection) {
  const bool admitted =
      admitEverybody_ || connection->valueForEntitlement(kPeerCapability).value_or(false);
  {
    const std::lock_guard lock(mutex_);
    if (admitted) {
      peers_.push_back(std::make_shared<TestPeer>(connection));
      peers_.back()->install();
    } else {
      ++refused_;
    }
  }
  changed_.notify_all();
  if (admitted) connection->resume();
  return admitted;
}

std::shared_ptr<TestPeer> TestService::peer(std::size_t index) {
  std::unique_lock lock(mutex_);
  const bool came = changed_.wait_for(lock, kLimit, [&] { return peers_.size() > index; });
  if (!came) throw std::runtime_error("no peer " + std::to_string(index));
  return peers_[index];
}

std::size_t TestService::accepted() {
  const std::lock_guard lock(mutex_);
  return peers_.size();
}

std::size_t TestService::refused() {
  const std::lock_guard lock(mutex_);
  return refused_;
}

bool TestService::waitForRefused(std::size_t count) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, kLimit, [&] { return refused_ >= count; });
}

std::unique_ptr<RemoteService> TestService::connect() {
  LinuxRemoteServiceConnector connector;
  QSError error;
  auto service = connector.connect(socketPath_, testMethods(), testNotifications(), &error);
  if (!service) throw std::runtime_error("no connection: " + error.description());
  return service;
}

}  // namespace quillsift::testing
