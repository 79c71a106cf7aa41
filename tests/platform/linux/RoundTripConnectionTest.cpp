#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "tests/platform/linux/ServiceFixture.h"

namespace quillsift::testing {
namespace {

std::vector<WireValue> echoArguments() {
  return {WireValue("hällo"), WireValue(true), WireValue(std::int64_t{-5}),
          WireValue(std::uint64_t{1} << 63), WireValue(0.125)};
}

TEST(RoundTripConnectionTest, EveryBasicTypeComesBackUnchanged) {
  TestService service;
  const auto client = service.connect();
  QSError error;
  const auto results = client->call("echo", echoArguments(), kLimit, &error);
  ASSERT_TRUE(results) << error.description();
  EXPECT_EQ(*results, echoArguments());
}

TEST(RoundTripConnectionTest, RecordsAndDatesComeBackUnchanged) {
  TestService service;
  const auto client = service.connect();
  QSError error;
  const auto results = client->call("records", {}, kLimit, &error);
  ASSERT_TRUE(results) << error.description();
  ASSERT_EQ(results->size(), 2U);
  const auto* records = results->at(0).as<WireArray>();
  ASSERT_NE(records, nullptr);
  ASSERT_EQ(records->size(), 2U);
  EXPECT_EQ(records->at(0), WireValue(testRecord(17)));
  EXPECT_EQ(records->at(1), WireValue(WireDictionary{}));
  EXPECT_EQ(results->at(1), WireValue(WireArray{WireValue(12.5)}));
}

TEST(RoundTripConnectionTest, AMethodWithoutResultsIsAnsweredEmpty) {
  TestService service;
  const auto client = service.connect();
  QSError error;
  const auto results = client->call("clear", {}, kLimit, &error);
  ASSERT_TRUE(results) << error.description();
  EXPECT_TRUE(results->empty());
  EXPECT_TRUE(service.peer()->waitFor("clear"));
}

TEST(RoundTripConnectionTest, NotificationsArriveWithTheirArguments) {
  TestService service;
  const auto client = service.connect();
  std::vector<std::pair<std::string, std::vector<WireValue>>> received;
  client->setNotificationHandler([&](const std::string& name, const auto& arguments) {
    received.emplace_back(name, arguments);
  });
  const std::vector<WireValue> progress = {WireValue(0.5), WireValue(std::int64_t{1}),
                                           WireValue("/tmp/x")};
  ServiceConnection& connection = service.peer()->connection();
  connection.send("started", {});
  connection.send("progress", progress);
  connection.send("changed", {WireValue(testRecord(3))});
  while (received.size() < 3)
    ASSERT_EQ(client->processEvents(kLimit, -1), RemoteService::Wake::event);
  EXPECT_EQ(received[0].first, "started");
  EXPECT_TRUE(received[0].second.empty());
  EXPECT_EQ(received[1].first, "progress");
  EXPECT_EQ(received[1].second, progress);
  EXPECT_EQ(received[2].first, "changed");
  EXPECT_EQ(received[2].second, std::vector<WireValue>{WireValue(testRecord(3))});
}

TEST(RoundTripConnectionTest, ThePeerIsWhoTheKernelSaysItIs) {
  TestService service;
  const auto client = service.connect();
  ServiceConnection& connection = service.peer()->connection();
  EXPECT_EQ(connection.processIdentifier(), ::getpid());
  EXPECT_EQ(connection.effectiveUserIdentifier(), ::geteuid());
  EXPECT_EQ(connection.valueForEntitlement("io.vantor.private.quillsiftd"), true);
  EXPECT_EQ(connection.valueForEntitlement("io.vantor.private.other"), std::nullopt);
}

TEST(RoundTripConnectionTest, AnOrderlyEndInvalidatesOnceAndInterruptsNothing) {
  TestService service;
  service.connect().reset();
  const auto peer = service.peer();
  ASSERT_TRUE(peer->waitFor("invalidated"));
  service.stop();
  EXPECT_EQ(peer->events(), std::vector<std::string>{"invalidated"});
}

TEST(RoundTripConnectionTest, TheClientSeesTheServiceGo) {
  TestService service;
  const auto client = service.connect();
  service.peer()->connection().invalidate();
  EXPECT_EQ(client->processEvents(kLimit, -1), RemoteService::Wake::disconnected);
  QSError error;
  EXPECT_FALSE(client->call("clear", {}, kLimit, &error));
  EXPECT_TRUE(error);
}

}  // namespace
}  // namespace quillsift::testing
