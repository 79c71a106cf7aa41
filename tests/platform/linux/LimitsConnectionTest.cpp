#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "platform/linux/LinuxRemoteServiceConnector.h"
#include "tests/platform/linux/RawPeer.h"
#include "tests/platform/linux/ServiceFixture.h"

namespace quillsift::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using namespace std::chrono_literals;
using namespace std::string_literals;

constexpr std::size_t kMiB = std::size_t{1} << 20;
constexpr std::size_t kOpenRequests = ServiceLimits{}.openRequests;

WireValue bigText() {
  return WireValue(std::string(65536, 'n'));
}

std::vector<WireValue> bigProgress() {
  return {WireValue(0.5), WireValue(std::int64_t{1}), bigText()};
}

TEST(LimitsConnectionTest, TenThousandNotificationsArriveInOrder) {
  TestService service;
  const auto client = service.connect();
  constexpr std::int64_t kCount = 10000;
  std::int64_t next = 0;
  client->setNotificationHandler([&](const std::string&, const std::vector<WireValue>& arguments) {
    ASSERT_EQ(arguments.at(1), WireValue(next));
    ++next;
  });
  const auto peer = service.peer();
  std::thread sender([&] {
    for (std::int64_t i = 0; i < kCount; ++i)
      peer->connection().send("progress", {WireValue(0.0), WireValue(i), WireValue("path")});
  });
  while (next < kCount)
    ASSERT_EQ(client->processEvents(kLimit, -1), RemoteService::Wake::event);
  sender.join();
  EXPECT_EQ(peer->count("send error"), 0U);
}

TEST(LimitsConnectionTest, RepliesAndNotificationsKeepTheirCommonOrder) {
  TestService service;
  RawPeer peer(service.socketPath());
  ASSERT_TRUE(peer.authenticate());
  ASSERT_TRUE(peer.write(RawCall{.member = "hold"}.bytes()));
  const auto seen = service.peer();
  ASSERT_TRUE(seen->waitFor("hold"));
  auto requests = seen->takeRequests();
  seen->connection().send("progress", bigProgress());
  requests.at(0).reply({WireValue(true)});
  seen->connection().send("started", {});
  const std::string bytes = peer.readUntil("started");
  // Only the reply carries a boolean.
  const std::size_t reply = bytes.find("\1b\0"s);
  ASSERT_NE(reply, std::string::npos);
  EXPECT_LT(bytes.find("progress"), reply);
  EXPECT_LT(reply, bytes.find("started"));
}

TEST(LimitsConnectionTest, APeerThatNeverReadsIsInvalidatedAndTheOthersAreNot) {
  ServiceConnectionSettings settings;
  settings.limits.queuedForOne = 8 * kMiB;
  TestService service(settings);
  RawPeer lazy(service.socketPath());
  ASSERT_TRUE(lazy.authenticate());
  const auto lazyPeer = service.peer(0);
  const auto client = service.connect();
  const auto peer = service.peer(1);
  std::size_t received = 0;
  client->setNotificationHandler([&](const std::string&, const auto&) { ++received; });

  std::size_t sent = 0;
  for (; sent < 1000 && lazyPeer->count("invalidated") == 0; ++sent) {
    lazyPeer->connection().send("progress", bigProgress());
    peer->connection().send("progress", bigProgress());
    ASSERT_EQ(client->processEvents(kLimit, -1), RemoteService::Wake::event);
  }
  ASSERT_TRUE(lazyPeer->waitFor("invalidated"));
  EXPECT_GE(sent, 128U);  // 8 MiB
  EXPECT_EQ(lazyPeer->events().front(), "send error");
  EXPECT_EQ(lazyPeer->events().back(), "invalidated");
  EXPECT_EQ(lazyPeer->count("interrupted"), 0U);
  while (received < sent)
    ASSERT_EQ(client->processEvents(kLimit, -1), RemoteService::Wake::event);
  EXPECT_TRUE(peer->events().empty());
  EXPECT_TRUE(lazy.readToTheEnd());
}

TEST(LimitsConnectionTest, WhenAllTogetherHoldTooMuchTheOneWithMostGoes) {
  ServiceConnectionSettings settings;
  settings.limits.queuedForAll = 16 * kMiB;
  TestService service(settings);
  std::vector<std::unique_ptr<RawPeer>> peers;
  for (std::size_t i = 0; i < 3; ++i) {
    peers.push_back(std::make_unique<RawPeer>(service.socketPath()));
    ASSERT_TRUE(peers.back()->authenticate());
    service.peer(i);
  }
  const auto sendTo = [&](std::size_t index, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
      service.peer(index)->connection().send("progress", bigProgress());
  };
  sendTo(0, 48);   // 3 MiB
  sendTo(1, 112);  // 7 MiB
  sendTo(2, 64);   // 4 MiB
  EXPECT_EQ(service.peer(1)->count("invalidated"), 0U);
  sendTo(0, 60);  // 6.75 MiB: 17.75 in all
  ASSERT_TRUE(service.peer(1)->waitFor("invalidated"));
  EXPECT_TRUE(service.peer(0)->events().empty());
  EXPECT_TRUE(service.peer(2)->events().empty());
  // Those that stayed get everything.
  peers[0]->readBytes(108 * 65536);
  peers[2]->readBytes(64 * 65536);
}

TEST(LimitsConnectionTest, APeerThatVanishesWithQueuedDataIsInvalidated) {
  TestService service;
  RawPeer peer(service.socketPath());
  ASSERT_TRUE(peer.authenticate());
  const auto seen = service.peer();
  for (int i = 0; i < 100; ++i)
    seen->connection().send("progress", bigProgress());
  ASSERT_TRUE(peer.readable(kLimit));
  peer.close();
  ASSERT_TRUE(seen->waitFor("invalidated"));
  service.connect();
}

TEST(LimitsConnectionTest, SendingToAPeerThatHasGoneIsHarmless) {
  TestService service;
  service.connect().reset();
  const auto seen = service.peer();
  ASSERT_TRUE(seen->waitFor("invalidated"));
  seen->connection().send("started", {});
  seen->connection().invalidate();
  service.stop();
  seen->connection().send("started", {});
  seen->connection().invalidate();
  EXPECT_THAT(seen->events(), ElementsAre("invalidated"));
}

TEST(LimitsConnectionTest, ANotificationThatDoesNotFitItsTypeIsASendErrorOnly) {
  TestService service;
  const auto client = service.connect();
  std::vector<std::string> names;
  client->setNotificationHandler(
      [&](const std::string& name, const auto&) { names.push_back(name); });
  const auto seen = service.peer();
  seen->connection().send("progress", {WireValue("no number")});
  seen->connection().send("unknown", {});
  ASSERT_TRUE(seen->waitFor("send error", 2));
  seen->connection().send("started", {});
  while (names.empty())
    ASSERT_EQ(client->processEvents(kLimit, -1), RemoteService::Wake::event);
  EXPECT_THAT(names, ElementsAre("started"));
}

TEST(LimitsConnectionTest, ACallFloodBlocksTheFlooderAndNobodyElse) {
  TestService service;
  RawPeer flooder(service.socketPath());
  ASSERT_TRUE(flooder.authenticate());
  // An answer of 32 KiB for each, of which none is read.
  std::string body = rawString(std::string(32768, 'e'));
  body.append((4 - body.size() % 4) % 4, '\0');
  body += "\1\0\0\0"s;
  body.append((8 - body.size() % 8) % 8, '\0');
  body += std::string(24, '\0');
  std::uint32_t serial = 0;
  std::string pending;
  // Until nothing has fitted for a while although others are served.
  const auto client = service.connect();
  const auto seen = service.peer(0);
  for (int quietRounds = 0; quietRounds < 50;) {
    if (pending.empty()) {
      pending =
          RawCall{.serial = ++serial, .member = "echo", .signature = "sbxtd", .body = body}.bytes();
    }
    const std::size_t written = flooder.writeWhatFits(pending);
    pending.erase(0, written);
    quietRounds = written > 0 ? 0 : quietRounds + 1;
    ASSERT_LT(serial, 1000U) << "nothing stops it";
    if (written > 0) continue;
    QSError error;
    ASSERT_TRUE(client->call("clear", {}, kLimit, &error)) << error.description();
  }
  // The open requests, and what the two sockets hold.
  EXPECT_LE(seen->count("echo"), kOpenRequests + 16);
  // Once it reads, everything is answered.
  std::thread reader([&] { flooder.readBytes(serial * 32768); });
  EXPECT_TRUE(flooder.write(pending));
  EXPECT_TRUE(seen->waitFor("echo", serial));
  reader.join();
}

TEST(LimitsConnectionTest, NoMoreThanTheLimitOfRequestsIsOpenAtOnce) {
  TestService service;
  RawPeer peer(service.socketPath());
  ASSERT_TRUE(peer.authenticate());
  constexpr std::size_t kAll = kOpenRequests + 16;
  for (std::uint32_t serial = 1; serial <= kAll; ++serial)
    ASSERT_TRUE(peer.write(RawCall{.serial = serial, .member = "hold", .noReply = true}.bytes()));
  const auto seen = service.peer();
  ASSERT_TRUE(seen->waitFor("hold", kOpenRequests));
  // Another one has been served from end to end: had there been one more, it would be here.
  const auto client = service.connect();
  QSError error;
  ASSERT_TRUE(client->call("clear", {}, kLimit, &error));
  EXPECT_EQ(seen->count("hold"), kOpenRequests);
  auto requests = seen->takeRequests();
  requests.resize(kOpenRequests - 10);  // ten end
  ASSERT_TRUE(seen->waitFor("hold", kOpenRequests + 10));
  ASSERT_TRUE(client->call("clear", {}, kLimit, &error));
  EXPECT_EQ(seen->count("hold"), kOpenRequests + 10);
  requests.clear();
  EXPECT_TRUE(seen->waitFor("hold", kAll));
}

TEST(LimitsConnectionTest, ARequestThatIsDroppedIsAnsweredWithAnError) {
  TestService service;
  RawPeer peer(service.socketPath());
  ASSERT_TRUE(peer.authenticate());
  ASSERT_TRUE(peer.write(RawCall{.member = "hold"}.bytes()));
  ASSERT_TRUE(service.peer()->waitFor("hold"));
  service.peer()->takeRequests();
  EXPECT_THAT(peer.readUntil("gave no answer"), HasSubstr("org.freedesktop.DBus.Error.Failed"));
}

TEST(LimitsConnectionTest, RepliesMayComeFromAnyThreadAndLongAfterThePeerHasGone) {
  TestService service;
  {
    RawPeer peer(service.socketPath());
    ASSERT_TRUE(peer.authenticate());
    constexpr std::size_t kHeld = kOpenRequests - 1;  // at the limit nothing is read, no end either
    for (std::uint32_t serial = 1; serial <= kHeld; ++serial)
      ASSERT_TRUE(peer.write(RawCall{.serial = serial, .member = "hold"}.bytes()));
    ASSERT_TRUE(service.peer()->waitFor("hold", kHeld));
  }
  ASSERT_TRUE(service.peer()->waitFor("invalidated"));
  auto requests = service.peer()->takeRequests();
  std::vector<std::thread> threads;
  for (auto& request : requests) {
    threads.emplace_back([&request] {
      request.reply({WireValue(true)});
      request = {};
    });
  }
  for (auto& thread : threads)
    thread.join();
  service.connect();
}

TEST(LimitsConnectionTest, ManyClientsGetEverythingInOrder) {
  TestService service;
  constexpr std::size_t kClients = 50;
  constexpr std::int64_t kEach = 200;
  std::vector<std::unique_ptr<RemoteService>> clients;
  std::vector<std::int64_t> next(kClients, 0);
  std::size_t disorder = 0;
  for (std::size_t i = 0; i < kClients; ++i) {
    clients.push_back(service.connect());
    clients.back()->setNotificationHandler(
        [&next, &disorder, i](const auto&, const auto& arguments) {
          if (arguments.at(1) != WireValue(next[i]++)) ++disorder;
        });
  }
  std::thread sender([&] {
    for (std::int64_t number = 0; number < kEach; ++number) {
      for (std::size_t i = 0; i < kClients; ++i)
        service.peer(i)->connection().send("progress",
                                           {WireValue(0.0), WireValue(number), WireValue("p")});
    }
  });
  // Which peer is which client's is told by the order of connecting.
  for (std::size_t i = 0; i < kClients; ++i) {
    while (next[i] < kEach)
      ASSERT_EQ(clients[i]->processEvents(kLimit, -1), RemoteService::Wake::event);
  }
  sender.join();
  EXPECT_EQ(disorder, 0U);
}

TEST(LimitsConnectionTest, OnePeerTooManyIsHungUpOnUntilAnotherGoes) {
  ServiceConnectionSettings settings;
  settings.limits.connections = 2;
  TestService service(settings);
  const auto first = service.connect();
  auto second = service.connect();
  LinuxRemoteServiceConnector connector;
  QSError error;
  EXPECT_EQ(connector.connect(service.socketPath(), testMethods(), testNotifications(), &error),
            nullptr);
  EXPECT_EQ(error.code, EACCES);
  second.reset();
  ASSERT_TRUE(service.peer(1)->waitFor("invalidated"));
  EXPECT_NE(service.connect(), nullptr);
}

// Uses up all descriptors of this process while it lives.
class DescriptorShortage {
 public:
  DescriptorShortage() {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    rlimit low = before_;
    low.rlim_cur = std::min<rlim_t>(low.rlim_cur, 256);
    ::setrlimit(RLIMIT_NOFILE, &low);
    for (;;) {
      FileDescriptor one(::dup(STDIN_FILENO));
      if (!one.valid()) break;
      held_.push_back(std::move(one));
    }
  }
  ~DescriptorShortage() {
    held_.clear();
    ::setrlimit(RLIMIT_NOFILE, &before_);
  }
  DescriptorShortage(const DescriptorShortage&) = delete;
  DescriptorShortage& operator=(const DescriptorShortage&) = delete;

 private:
  rlimit before_{};
  std::vector<FileDescriptor> held_;
};

std::chrono::microseconds processorTime() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return std::chrono::seconds(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         std::chrono::microseconds(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

TEST(LimitsConnectionTest, WithoutDescriptorsPeersWaitAndNothingSpins) {
  TestService service;
  const auto client = service.connect();
  FileDescriptor late(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  service.socketPath().copy(address.sun_path, sizeof(address.sun_path) - 1);
  {
    const DescriptorShortage shortage;
    ASSERT_EQ(::connect(late.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::send(late.get(), "\0AUTH ANONYMOUS\r\n", 17, MSG_NOSIGNAL), 17);
    // The connected are served as ever.
    QSError error;
    ASSERT_TRUE(client->call("clear", {}, kLimit, &error)) << error.description();
    // What spins takes all the time it can get; what waits is not made busy by a busy machine.
    const auto before = processorTime();
    EXPECT_EQ(client->processEvents(2s, -1), RemoteService::Wake::timeout);
    EXPECT_LT(processorTime() - before, 1s);
    EXPECT_EQ(service.accepted(), 1U);
  }
  char answer[9] = {};
  EXPECT_EQ(::recv(late.get(), answer, sizeof(answer), MSG_WAITALL), 9);
  EXPECT_EQ(std::string(answer, 8), "REJECTED");
}

TEST(LimitsConnectionTest, AHandlerMayInvalidateItsOwnConnectionAndLetItGo) {
  TestService service;
  const auto client = service.connect();
  const auto seen = service.peer();
  seen->connection().invalidate();
  seen->connection().invalidate();
  ASSERT_TRUE(seen->waitFor("invalidated"));
  seen->forget();
  EXPECT_EQ(client->processEvents(kLimit, -1), RemoteService::Wake::disconnected);
  EXPECT_EQ(seen->count("invalidated"), 1U);
}

TEST(LimitsConnectionTest, EndingTheServiceInvalidatesEveryPeer) {
  TestService service;
  const auto first = service.connect();
  const auto second = service.connect();
  service.peer(1);
  service.stop();
  EXPECT_THAT(service.peer(0)->events(), ElementsAre("invalidated"));
  EXPECT_THAT(service.peer(1)->events(), ElementsAre("invalidated"));
  EXPECT_EQ(first->processEvents(kLimit, -1), RemoteService::Wake::disconnected);
}

}  // namespace
}  // namespace quillsift::testing
