#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <thread>

#include "platform/linux/EndpointSocket.h"
#include "platform/linux/LinuxRemoteService.h"
#include "platform/linux/LinuxRemoteServiceConnector.h"
#include "tests/platform/linux/ServiceFixture.h"

namespace quillsift::testing {
namespace {

using namespace std::chrono_literals;

std::int64_t connectFailure(const std::string& path) {
  LinuxRemoteServiceConnector connector;
  QSError error;
  EXPECT_EQ(connector.connect(path, testMethods(), testNotifications(), &error), nullptr);
  EXPECT_EQ(error.domain, kPOSIXErrorDomain);
  return error.code;
}

TEST(RemoteServiceConnectionTest, SaysWhyThereIsNoService) {
  const ScratchDirectory directory;
  EXPECT_EQ(connectFailure(directory.path("nothing")), ENOENT);
  bindEndpointSocket(directory.path("stale"), nullptr).reset();
  EXPECT_EQ(connectFailure(directory.path("stale")), ECONNREFUSED);
  std::ofstream(directory.path("file")) << "x";
  EXPECT_EQ(connectFailure(directory.path("file")), ECONNREFUSED);
  EXPECT_EQ(connectFailure(directory.path(std::string(200, 'x'))), ENAMETOOLONG);
}

TEST(RemoteServiceConnectionTest, AServiceThatSaysNothingIsGivenUp) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const FileDescriptor other(ends[1]);
  int failure = 0;
  EXPECT_EQ(LinuxRemoteService::open(FileDescriptor(ends[0]), testMethods(), testNotifications(),
                                     50ms, &failure),
            nullptr);
  EXPECT_EQ(failure, ETIMEDOUT);
}

TEST(RemoteServiceConnectionTest, ACallEndsAtItsDeadlineAndTheConnectionLivesOn) {
  TestService service;
  const auto client = service.connect();
  QSError error;
  const auto before = std::chrono::steady_clock::now();
  EXPECT_FALSE(client->call("hold", {}, 100ms, &error));
  EXPECT_GE(std::chrono::steady_clock::now() - before, 100ms);
  EXPECT_EQ(error.code, ETIMEDOUT);
  EXPECT_TRUE(client->call("clear", {}, kLimit, &error)) << error.description();
}

TEST(RemoteServiceConnectionTest, ACallSurvivesSignals) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  struct sigaction before {};
  ASSERT_EQ(::sigaction(SIGALRM, &action, &before), 0);
  TestService service;
  const auto client = service.connect();
  std::atomic<bool> answered = false;
  const pthread_t caller = ::pthread_self();
  std::thread other([&] {
    service.peer()->waitFor("hold");
    for (int i = 0; i < 20; ++i) {
      ::pthread_kill(caller, SIGALRM);
      std::this_thread::yield();
    }
    answered = true;
    service.peer()->takeRequests().at(0).reply({WireValue(true)});
  });
  QSError error;
  const auto results = client->call("hold", {}, kLimit, &error);
  EXPECT_TRUE(answered);
  EXPECT_TRUE(results) << error.description();
  other.join();
  ::sigaction(SIGALRM, &before, nullptr);
}

TEST(RemoteServiceConnectionTest, TheErrorOfTheServiceIsHandedOn) {
  TestService service;
  const auto client = service.connect();
  std::thread other([&] {
    service.peer()->waitFor("hold");
    service.peer()->takeRequests();  // and drops it
  });
  QSError error;
  EXPECT_FALSE(client->call("hold", {}, kLimit, &error));
  other.join();
  EXPECT_EQ(error.domain, kPOSIXErrorDomain);
  EXPECT_EQ(error.localizedDescription, "hold gave no answer.");
}

TEST(RemoteServiceConnectionTest, ArgumentsThatDoNotFitAreRefusedHere) {
  TestService service;
  const auto client = service.connect();
  QSError error;
  EXPECT_FALSE(client->call("echo", {WireValue("one")}, kLimit, &error));
  EXPECT_EQ(error.code, EINVAL);
  EXPECT_FALSE(client->call("unknown", {}, kLimit, &error));
  EXPECT_EQ(error.code, ENOSYS);
  EXPECT_EQ(service.peer()->count("echo"), 0U);
}

TEST(RemoteServiceConnectionTest, NotificationsDuringACallAreKeptForLater) {
  TestService service;
  const auto client = service.connect();
  std::vector<std::string> names;
  client->setNotificationHandler(
      [&](const std::string& name, const auto&) { names.push_back(name); });
  std::thread other([&] {
    const auto peer = service.peer();
    peer->waitFor("hold");
    for (int i = 0; i < 100; ++i)
      peer->connection().send("started", {});
    peer->takeRequests().at(0).reply({WireValue(false)});
  });
  QSError error;
  const auto results = client->call("hold", {}, kLimit, &error);
  other.join();
  ASSERT_TRUE(results) << error.description();
  EXPECT_EQ(results->at(0), WireValue(false));
  EXPECT_TRUE(names.empty());
  while (names.size() < 100)
    ASSERT_EQ(client->processEvents(kLimit, -1), RemoteService::Wake::event);
}

TEST(RemoteServiceConnectionTest, WaitingEndsWithTheTimeOrTheDescriptor) {
  TestService service;
  const auto client = service.connect();
  EXPECT_EQ(client->processEvents(0ns, -1), RemoteService::Wake::timeout);
  EXPECT_EQ(client->processEvents(20ms, -1), RemoteService::Wake::timeout);
  int ends[2] = {-1, -1};
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const FileDescriptor readEnd(ends[0]);
  const FileDescriptor writeEnd(ends[1]);
  EXPECT_EQ(client->processEvents(20ms, readEnd.get()), RemoteService::Wake::timeout);
  ASSERT_EQ(::write(writeEnd.get(), "x", 1), 1);
  EXPECT_EQ(client->processEvents(kLimit, readEnd.get()), RemoteService::Wake::descriptor);
}

TEST(RemoteServiceConnectionTest, AFloodOfNotificationsDoesNotHideTheDescriptor) {
  TestService service;
  const auto client = service.connect();
  std::size_t received = 0;
  client->setNotificationHandler([&](const auto&, const auto&) { ++received; });
  for (int i = 0; i < 5000; ++i)
    service.peer()->connection().send("started", {});
  int ends[2] = {-1, -1};
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const FileDescriptor readEnd(ends[0]);
  const FileDescriptor writeEnd(ends[1]);
  ASSERT_EQ(::write(writeEnd.get(), "x", 1), 1);
  while (client->processEvents(kLimit, readEnd.get()) != RemoteService::Wake::descriptor) {
  }
  EXPECT_LT(received, 5000U);
}

TEST(RemoteServiceConnectionTest, AHandlerMayCallTheService) {
  TestService service;
  const auto client = service.connect();
  bool called = false;
  client->setNotificationHandler([&](const auto&, const auto&) {
    called = client->call("clear", {}, kLimit, nullptr).has_value();
  });
  service.peer()->connection().send("started", {});
  EXPECT_EQ(client->processEvents(kLimit, -1), RemoteService::Wake::event);
  EXPECT_TRUE(called);
}

TEST(RemoteServiceConnectionTest, NotificationsBeforeTheEndAreDeliveredBeforeTheEnd) {
  TestService service;
  const auto client = service.connect();
  std::size_t received = 0;
  client->setNotificationHandler([&](const auto&, const auto&) { ++received; });
  QSError error;
  const auto peer = service.peer();
  peer->connection().send("started", {});
  ASSERT_TRUE(client->call("clear", {}, kLimit, &error));  // so it has been written
  peer->connection().invalidate();
  ASSERT_TRUE(peer->waitFor("invalidated"));
  EXPECT_EQ(client->processEvents(kLimit, -1), RemoteService::Wake::event);
  EXPECT_EQ(received, 1U);
  EXPECT_EQ(client->processEvents(kLimit, -1), RemoteService::Wake::disconnected);
  EXPECT_EQ(client->processEvents(kLimit, -1), RemoteService::Wake::disconnected);
}

}  // namespace
}  // namespace quillsift::testing
