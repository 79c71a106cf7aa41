#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/doubles/FakeServiceConnections.h"

namespace quillsift {
namespace {

const WireInterface kServer{"Server",
                            {{"add", {{"a", "x"}, {"b", "x"}}, {{"sum", "x"}}},
                             {"list", {}, {{"all", "aa{sv}"}, {"numbers", "ad"}}}}};
const WireInterface kClient{"Client", {{"told", {{"text", "s"}, {"record", "a{sv}"}}, {}}}};

class KeepingHandler : public ServiceRequestHandler {
 public:
  void handleRequest(ServiceRequest request) override { requests.push_back(std::move(request)); }

  std::vector<ServiceRequest> requests;
};

class FakeServiceConnectionsTest : public testing::Test {
 protected:
  FakeServiceConnectionsTest() : listener_(connections_.makeListener("service")) {
    listener_->setAcceptHandler([this](std::shared_ptr<ServiceConnection> connection) {
      if (!connection->valueForEntitlement("allowed").value_or(false)) return false;
      connection->setExportedInterface(kServer, handler_);
      connection->setRemoteInterface(kClient);
      connection->setInterruptionHandler([this] { events_ += "interrupted "; });
      connection->setInvalidationHandler([this] { events_ += "invalidated "; });
      connection->setSendErrorHandler([this] { events_ += "unsent "; });
      connection->resume();
      accepted_ = std::move(connection);
      return true;
    });
  }

  std::shared_ptr<FakeServiceConnection> connect() {
    QSError error;
    EXPECT_TRUE(listener_->resume(&error));
    return connections_.connect("service", {.entitlements = {{"allowed", true}}}).connection;
  }

  static std::vector<WireValue> numbers(std::int64_t a, std::int64_t b) {
    return {WireValue(a), WireValue(b)};
  }

  FakeServiceConnections connections_;
  std::shared_ptr<KeepingHandler> handler_ = std::make_shared<KeepingHandler>();
  std::string events_;
  std::shared_ptr<ServiceConnection> accepted_;
  std::unique_ptr<ServiceListener> listener_;
};

TEST_F(FakeServiceConnectionsTest, NobodyListensBeforeResume) {
  EXPECT_EQ(connections_.connect("service", {}).connection, nullptr);
  EXPECT_EQ(connections_.connect("other", {}).connection, nullptr);
  connections_.failResume(QSError::posix(EADDRINUSE));
  QSError error;
  EXPECT_FALSE(listener_->resume(&error));
  EXPECT_EQ(error.code, EADDRINUSE);
  EXPECT_EQ(connections_.connect("service", {}).connection, nullptr);
}

TEST_F(FakeServiceConnectionsTest, TheAcceptHandlerDecides) {
  ASSERT_TRUE(listener_->resume(nullptr));
  const auto refused = connections_.connect("service", {.entitlements = {{"allowed", false}}});
  EXPECT_FALSE(refused.accepted);
  EXPECT_FALSE(refused.connection->isResumed());
  EXPECT_TRUE(refused.connection->isInvalidated());
  EXPECT_FALSE(connections_.connect("service", {}).accepted);
  EXPECT_TRUE(connections_.connect("service", {.entitlements = {{"allowed", true}}}).accepted);
}

TEST_F(FakeServiceConnectionsTest, ARequestIsDeliveredAndAnswered) {
  const auto peer = connect();
  const std::size_t first = peer->request("add", numbers(1, 2));
  const std::size_t silent = peer->request("add", numbers(3, 4), false);
  ASSERT_EQ(handler_->requests.size(), 2U);
  EXPECT_EQ(handler_->requests[0].method, "add");
  EXPECT_EQ(handler_->requests[0].arguments, numbers(1, 2));
  EXPECT_FALSE(handler_->requests[1].reply);
  EXPECT_EQ(peer->requestsInFlight(), 2U);
  EXPECT_EQ(peer->reply(first), std::nullopt);
  handler_->requests[0].reply({WireValue(std::int64_t{3})});
  EXPECT_EQ(peer->reply(first), (std::vector<WireValue>{WireValue(std::int64_t{3})}));
  EXPECT_EQ(peer->reply(silent), std::nullopt);
  handler_->requests.clear();
  EXPECT_EQ(peer->requestsInFlight(), 0U);
}

TEST_F(FakeServiceConnectionsTest, RepliesAndNotificationsKeepOneOrder) {
  const auto peer = connect();
  peer->request("add", numbers(1, 2));
  const std::vector<WireValue> telling{WireValue("text"), WireValue(WireDictionary())};
  std::thread sender([&] {
    accepted_->send("told", telling);
    handler_->requests[0].reply({WireValue(std::int64_t{3})});
    accepted_->send("told", telling);
  });
  peer->waitForReceived(3);
  sender.join();
  const auto received = peer->received();
  EXPECT_FALSE(received[0].isReply);
  EXPECT_TRUE(received[1].isReply);
  EXPECT_FALSE(received[2].isReply);
  EXPECT_EQ(peer->notifications("told"), (std::vector{telling, telling}));
}

TEST_F(FakeServiceConnectionsTest, NothingPassesAfterTheInvalidation) {
  const auto peer = connect();
  peer->request("add", numbers(1, 2));
  peer->fireInterruption();
  peer->fireSendError();
  accepted_->invalidate();
  accepted_->invalidate();
  EXPECT_TRUE(peer->isInvalidated());
  peer->fireInvalidation();
  peer->fireInvalidation();
  peer->fireInterruption();
  peer->fireSendError();
  EXPECT_EQ(events_, "interrupted unsent invalidated ");
  peer->request("add", numbers(1, 2));
  EXPECT_EQ(handler_->requests.size(), 1U);
  handler_->requests[0].reply({WireValue(std::int64_t{3})});
  accepted_->send("told", {WireValue("text"), WireValue(WireDictionary())});
  EXPECT_TRUE(peer->received().empty());
}

TEST_F(FakeServiceConnectionsTest, HoldsItsHandlerWeaklyAndIsNotHeldByAReply) {
  auto peer = connect();
  peer->request("add", numbers(1, 2));
  const std::weak_ptr<FakeServiceConnection> watched = peer;
  auto reply = handler_->requests[0].reply;
  handler_.reset();
  peer->request("add", numbers(1, 2));
  peer.reset();
  accepted_.reset();
  EXPECT_TRUE(watched.expired());
  reply({WireValue(std::int64_t{3})});
}

TEST_F(FakeServiceConnectionsTest, ChecksNestedTypes) {
  const auto peer = connect();
  peer->request("list", {});
  handler_->requests[0].reply({WireValue(WireArray{WireValue(WireDictionary())}),
                               WireValue(WireArray{WireValue(1.5), WireValue(2.5)})});
  EXPECT_EQ(peer->received().size(), 1U);
}

using FakeServiceConnectionsDeathTest = FakeServiceConnectionsTest;

TEST_F(FakeServiceConnectionsDeathTest, MistakesAbort) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const auto peer = connect();
  EXPECT_DEATH(peer->request("subtract", {}), "no such message");
  EXPECT_DEATH(peer->request("add", {WireValue(std::int64_t{1})}), "wrong number");
  EXPECT_DEATH(peer->request("add", {WireValue(1.0), WireValue(1.0)}), "another type");
  EXPECT_DEATH(accepted_->send("told", {}), "wrong number");
  EXPECT_DEATH(accepted_->setInterruptionHandler([] {}), "after resume");
  peer->request("list", {});
  const auto reply = handler_->requests[0].reply;
  const WireValue empty((WireArray()));
  EXPECT_DEATH(reply({empty, WireValue(WireArray{WireValue("text")})}), "another type");
  reply({empty, empty});
  EXPECT_DEATH(reply({empty, empty}), "second reply");
}

}  // namespace
}  // namespace quillsift
