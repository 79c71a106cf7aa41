#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>

#include "tests/platform/linux/RawPeer.h"
#include "tests/platform/linux/ServiceFixture.h"

namespace quillsift::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using namespace std::chrono_literals;
using namespace std::string_literals;

// Whoever did what to it, the service goes on serving.
void expectServing(TestService& service) {
  const auto client = service.connect();
  ASSERT_NE(client, nullptr);
  QSError error;
  EXPECT_TRUE(client->call("clear", {}, kLimit, &error)) << error.description();
}

constexpr std::chrono::milliseconds kShortHandshake{500};

ServiceConnectionSettings withShortHandshake() {
  ServiceConnectionSettings settings;
  settings.limits.handshake = kShortHandshake;
  return settings;
}

// Reads one whole message.
bool readAnswer(RawPeer& peer) {
  const std::string head = peer.readBytes(16);
  if (head.size() != 16) return false;
  const auto number = [&](std::size_t offset) {
    std::uint32_t value = 0;
    std::memcpy(&value, head.data() + offset, sizeof value);
    return std::size_t{value};
  };
  const std::size_t rest = (number(12) + 7) / 8 * 8 + number(4);
  return peer.readBytes(rest).size() == rest;
}

// A peer whose call was answered, so its handshake is over. On a busy machine one may be too slow
// for a short limit: it is hung up on as it should be, and the next one tries. Null when none gets
// through.
std::unique_ptr<RawPeer> answeredPeer(const TestService& service) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    auto peer = std::make_unique<RawPeer>(service.socketPath());
    if (peer->authenticate() && peer->write(RawCall{.member = "clear"}.bytes()) &&
        readAnswer(*peer)) {
      return peer;
    }
  }
  return nullptr;
}

TEST(HostilePeersConnectionTest, GarbageInsteadOfAHandshakeEndsThatPeer) {
  TestService service;
  RawPeer peer(service.socketPath());
  ASSERT_TRUE(peer.write(std::string(4096, '\x81')));
  EXPECT_TRUE(peer.readToTheEnd());
  ASSERT_TRUE(service.peer()->waitFor("invalidated"));
  EXPECT_THAT(service.peer()->events(), ElementsAre("interrupted", "invalidated"));
  expectServing(service);
}

TEST(HostilePeersConnectionTest, AnEndlessHandshakeLineEndsThatPeer) {
  TestService service;
  RawPeer peer(service.socketPath());
  peer.write("\0AUTH "s + std::string(200000, 'A'));
  EXPECT_TRUE(peer.readToTheEnd());
  ASSERT_TRUE(service.peer()->waitFor("invalidated"));
  expectServing(service);
}

TEST(HostilePeersConnectionTest, ASilentPeerIsHungUpOnAfterTheHandshakeLimit) {
  TestService service(withShortHandshake());
  RawPeer peer(service.socketPath());
  EXPECT_TRUE(peer.readToTheEnd());
  ASSERT_TRUE(service.peer()->waitFor("invalidated"));
  EXPECT_THAT(service.peer()->events(), ElementsAre("invalidated"));
  EXPECT_NE(answeredPeer(service), nullptr);
}

TEST(HostilePeersConnectionTest, APeerStuckInTheHandshakeIsHungUpOn) {
  TestService service(withShortHandshake());
  // One that was hung up on before it could say anything was only silent.
  for (bool isStuck = false; !isStuck;) {
    RawPeer peer(service.socketPath());
    isStuck = peer.write("\0AUTH EXTER"s);
    ASSERT_TRUE(peer.readToTheEnd());
  }
}

TEST(HostilePeersConnectionTest, AnAuthenticatedPeerMayBeSilentForLong) {
  TestService service(withShortHandshake());
  const auto peer = answeredPeer(service);
  ASSERT_NE(peer, nullptr);
  EXPECT_FALSE(peer->readable(2 * kShortHandshake));
  ASSERT_TRUE(peer->write(RawCall{.serial = 2, .member = "clear"}.bytes()));
  EXPECT_TRUE(readAnswer(*peer));
}

TEST(HostilePeersConnectionTest, NobodyIsAnonymous) {
  TestService service;
  RawPeer peer(service.socketPath());
  ASSERT_TRUE(peer.write("\0AUTH ANONYMOUS\r\n"s));
  EXPECT_THAT(peer.readUntil("\r\n"), HasSubstr("REJECTED"));
}

TEST(HostilePeersConnectionTest, NobodyIsSomebodyElse) {
  TestService service;
  RawPeer peer(service.socketPath());
  ASSERT_TRUE(peer.write("\0AUTH EXTERNAL 3132333435\r\n"s));  // 12345
  EXPECT_THAT(peer.readUntil("\r\n"), HasSubstr("REJECTED"));
}

// Bytes that are no message, each as the first thing after the handshake and as the second.
class MalformedConnectionTest : public ::testing::TestWithParam<std::string> {};

TEST_P(MalformedConnectionTest, EndsThatPeerOnly) {
  TestService service;
  RawPeer peer(service.socketPath());
  ASSERT_TRUE(peer.authenticate());
  ASSERT_TRUE(peer.write(RawCall{.member = "clear", .noReply = true}.bytes()));
  ASSERT_TRUE(service.peer()->waitFor("clear"));
  peer.write(GetParam());
  EXPECT_TRUE(peer.readToTheEnd());
  ASSERT_TRUE(service.peer()->waitFor("invalidated"));
  EXPECT_THAT(service.peer()->events(), ElementsAre("clear", "interrupted", "invalidated"));
  expectServing(service);
}

std::string changed(std::string bytes, std::size_t at, char value) {
  bytes.at(at) = value;
  return bytes;
}

std::string plainCall() {
  return RawCall{.serial = 2, .member = "clear"}.bytes();
}

// A header of nothing but its fixed part, announcing this much.
std::string announcing(std::uint32_t body) {
  std::string header = plainCall().substr(0, 16);
  for (std::size_t i = 0; i < 4; ++i)
    header[4 + i] = static_cast<char>(body >> (8 * i));
  return header;
}

INSTANTIATE_TEST_SUITE_P(
    Bytes, MalformedConnectionTest,
    ::testing::Values(std::string(64, 'x'), std::string(64, '\0'),
                      changed(plainCall(), 3, 2),     // another version of the protocol
                      changed(plainCall(), 8, 0),     // no serial number
                      changed(plainCall(), 1, 0),     // no type
                      changed(plainCall(), 16, 99),   // no path
                      changed(plainCall(), 24, '?'),  // a path that is none
                      announcing(127U << 20), announcing(200U << 20), announcing(0xFFFFFFFF),
                      RawCall{.serial = 2,
                              .member = "echo",
                              .signature = "s",
                              .body = rawString(std::string(300000, 'a'))}
                          .bytes()));

TEST(HostilePeersConnectionTest, AHugeAnnouncementRightAfterTheHandshakeEndsThePeer) {
  TestService service;
  RawPeer peer(service.socketPath());
  ASSERT_TRUE(peer.authenticate());
  peer.write(announcing(127U << 20));
  EXPECT_TRUE(peer.readToTheEnd());
  expectServing(service);
}

TEST(HostilePeersConnectionTest, AHugeMessageWhoseHeaderComesInPiecesEndsThePeer) {
  TestService service;
  RawPeer peer(service.socketPath());
  ASSERT_TRUE(peer.authenticate());
  const std::string header = announcing(127U << 20);
  ASSERT_TRUE(peer.write(header.substr(0, 5)));
  ASSERT_TRUE(service.peer());
  std::string chunk = header.substr(5);
  // The service reads it all for a while, but not for long.
  for (std::size_t sent = 0; peer.write(chunk) && sent < (std::size_t{127} << 20);) {
    sent += chunk.size();
    chunk.assign(65536, '\0');
  }
  EXPECT_TRUE(peer.readToTheEnd());
  EXPECT_TRUE(service.peer()->waitFor("invalidated"));
  expectServing(service);
}

TEST(HostilePeersConnectionTest, HalfAMessageAndTheEndIsAnInterruption) {
  TestService service;
  RawPeer peer(service.socketPath());
  ASSERT_TRUE(peer.authenticate());
  const std::string call = RawCall{.serial = 1, .member = "clear", .noReply = true}.bytes();
  ASSERT_TRUE(peer.write(call + call.substr(0, call.size() - 7)));
  ASSERT_TRUE(service.peer()->waitFor("clear"));
  peer.close();
  ASSERT_TRUE(service.peer()->waitFor("invalidated"));
  EXPECT_THAT(service.peer()->events(), ElementsAre("clear", "interrupted", "invalidated"));
}

TEST(HostilePeersConnectionTest, HalfAMessageKeepsNobodyElseWaiting) {
  TestService service;
  RawPeer peer(service.socketPath());
  ASSERT_TRUE(peer.authenticate());
  const std::string call = RawCall{.serial = 5, .member = "clear"}.bytes();
  ASSERT_TRUE(peer.write(call.substr(0, 40)));
  expectServing(service);
  ASSERT_TRUE(peer.write(call.substr(40)));
  EXPECT_TRUE(service.peer()->waitFor("clear"));
}

TEST(HostilePeersConnectionTest, MessagesInPiecesOfAnySizeAreUnderstood) {
  TestService service;
  for (const std::size_t piece : {1U, 3U, 15U, 16U, 17U, 24U, 100U}) {
    RawPeer peer(service.socketPath());
    ASSERT_TRUE(peer.authenticate());
    std::string calls;
    for (std::uint32_t serial = 1; serial <= 5; ++serial)
      calls += RawCall{.serial = serial, .member = "clear", .noReply = true}.bytes();
    for (std::size_t at = 0; at < calls.size(); at += piece)
      ASSERT_TRUE(peer.write(std::string_view(calls).substr(at, piece)));
    const auto seen = service.peer(service.accepted() - 1);
    EXPECT_TRUE(seen->waitFor("clear", 5)) << piece;
    peer.close();
    EXPECT_TRUE(seen->waitFor("invalidated"));
    EXPECT_EQ(seen->count("interrupted"), 0U) << piece;
  }
}

TEST(HostilePeersConnectionTest, ACallWithTheWrongTypesIsAnsweredWithAnError) {
  TestService service;
  RawPeer peer(service.socketPath());
  ASSERT_TRUE(peer.authenticate());
  ASSERT_TRUE(peer.write(
      RawCall{.member = "echo", .signature = "s", .body = rawString("only one")}.bytes()));
  EXPECT_THAT(peer.readUntil("InvalidArgs"), HasSubstr("InvalidArgs"));
  expectServing(service);
}

TEST(HostilePeersConnectionTest, ACallForAnotherObjectIsAnsweredWithAnError) {
  TestService service;
  RawPeer peer(service.socketPath());
  ASSERT_TRUE(peer.authenticate());
  ASSERT_TRUE(peer.write(RawCall{.member = "clear", .path = "/somewhere"}.bytes()));
  EXPECT_THAT(peer.readUntil("UnknownObject"), HasSubstr("UnknownObject"));
  EXPECT_EQ(service.peer()->count("clear"), 0U);
}

TEST(HostilePeersConnectionTest, EverythingPipelinedBehindTheHandshakeIsRead) {
  TestService service;
  RawPeer peer(service.socketPath());
  std::string identity;
  for (const char digit : std::to_string(::geteuid()))
    identity += {'3', digit};
  std::string bytes = "\0AUTH EXTERNAL "s + identity + "\r\nBEGIN\r\n";
  for (std::uint32_t serial = 1; serial <= 40; ++serial)
    bytes += RawCall{.serial = serial, .member = "clear", .noReply = true}.bytes();
  ASSERT_TRUE(peer.write(bytes));
  EXPECT_TRUE(service.peer()->waitFor("clear", 40));
}

TEST(HostilePeersConnectionTest, EverythingSaidBeforeHangingUpIsCarriedOutAndTheEndIsOrderly) {
  TestService service;
  for (std::size_t i = 0; i < 20; ++i) {
    RawPeer peer(service.socketPath());
    ASSERT_TRUE(peer.authenticate());
    std::string calls;
    for (std::uint32_t serial = 1; serial <= 500; ++serial)
      calls += RawCall{.serial = serial, .member = "clear", .noReply = true}.bytes();
    ASSERT_TRUE(peer.write(calls));
    peer.close();
    const auto seen = service.peer(i);
    ASSERT_TRUE(seen->waitFor("invalidated"));
    EXPECT_EQ(seen->count("clear"), 500U);
    EXPECT_EQ(seen->count("interrupted"), 0U);
  }
}

}  // namespace
}  // namespace quillsift::testing
