#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "platform/linux/LinuxRemoteServiceConnector.h"
#include "platform/linux/PeerCredentials.h"
#include "tests/platform/linux/RawPeer.h"
#include "tests/platform/linux/RunningProgram.h"
#include "tests/platform/linux/ServiceFixture.h"

namespace quillsift::testing {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr gid_t kGroup = 4242;
constexpr uid_t kStranger = 65534;

// Everybody looks like this, and the group exists (or not).
ServiceConnectionSettings whenEverybodyIs(PeerCredentials peer,
                                          std::optional<gid_t> group = kGroup) {
  ServiceConnectionSettings settings;
  settings.credentials = [peer](int) { return peer; };
  settings.capabilityGroup = [group] { return group; };
  return settings;
}

bool admits(const ServiceConnectionSettings& settings) {
  TestService service(settings, false);
  const RawPeer peer(service.socketPath());
  for (;;) {
    if (service.accepted() == 1) return true;
    if (service.refused() == 1) return false;
    std::this_thread::yield();
  }
}

TEST(AdmissionConnectionTest, TheCapabilityIsHeldByRootOurselvesAndTheGroup) {
  EXPECT_TRUE(admits(whenEverybodyIs({.userIdentifier = 0})));
  EXPECT_TRUE(admits(whenEverybodyIs({.userIdentifier = ::geteuid()})));
  EXPECT_TRUE(admits(whenEverybodyIs({.userIdentifier = kStranger, .groupIdentifier = kGroup})));
  EXPECT_TRUE(admits(whenEverybodyIs(
      {.userIdentifier = kStranger, .groupIdentifier = 5, .supplementaryGroups = {1, kGroup, 9}})));
}

TEST(AdmissionConnectionTest, NobodyElseHoldsIt) {
  EXPECT_FALSE(admits(whenEverybodyIs(
      {.userIdentifier = kStranger, .groupIdentifier = 5, .supplementaryGroups = {1, 2}})));
  EXPECT_FALSE(admits(whenEverybodyIs({.userIdentifier = kStranger, .groupIdentifier = 0})));
}

TEST(AdmissionConnectionTest, AGroupThatDoesNotExistAdmitsNobody) {
  EXPECT_FALSE(admits(whenEverybodyIs(
      {.userIdentifier = kStranger, .groupIdentifier = kGroup, .supplementaryGroups = {kGroup}},
      std::nullopt)));
}

TEST(AdmissionConnectionTest, ARefusedPeerIsHungUpOnWithNothingReadOrWritten) {
  TestService service(whenEverybodyIs({.userIdentifier = kStranger, .groupIdentifier = 5}), false);
  for (std::size_t i = 1; i <= 20; ++i) {
    RawPeer peer(service.socketPath());
    // Written before or after the refusal: whichever, nobody reads it.
    peer.write(std::string("\0AUTH EXTERNAL 30\r\n", 19));
    std::string bytes;
    EXPECT_TRUE(peer.readToTheEnd(&bytes));
    EXPECT_EQ(bytes, "");
    ASSERT_TRUE(service.waitForRefused(i));
  }
  EXPECT_EQ(service.accepted(), 0U);
}

TEST(AdmissionConnectionTest, APeerWithoutCredentialsIsHungUpOn) {
  ServiceConnectionSettings settings;
  settings.credentials = [](int) { return std::nullopt; };
  TestService service(settings);
  RawPeer peer(service.socketPath());
  EXPECT_TRUE(peer.readToTheEnd());
  EXPECT_EQ(service.accepted(), 0U);
}

TEST(AdmissionConnectionTest, TheClientIsToldThatItIsNotAdmitted) {
  TestService service(whenEverybodyIs({.userIdentifier = kStranger, .groupIdentifier = 5}), false);
  LinuxRemoteServiceConnector connector;
  for (int i = 0; i < 50; ++i) {
    QSError error;
    EXPECT_EQ(connector.connect(service.socketPath(), testMethods(), testNotifications(), &error),
              nullptr);
    EXPECT_EQ(error.domain, kPOSIXErrorDomain);
    ASSERT_EQ(error.code, EACCES) << error.description();
    EXPECT_EQ(error.filePath, service.socketPath());
  }
}

// From here on with the credentials that the kernel stamps on real processes of another user.

std::string asStranger(const std::string& groups, const std::string& command) {
  return "setpriv --reuid 65534 --regid 65534 " + groups + " " + command;
}

std::string callClear(const TestService& service) {
  return "dbus-send --peer=" + service.address() +
         " --print-reply --reply-timeout=60000 /io/vantor/quillsiftd io.vantor.test.Methods.clear";
}

TEST(AdmissionConnectionTest, AnotherUserIsRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  TestService service({}, false);
  const auto result = runCommand(asStranger("--clear-groups", callClear(service)));
  EXPECT_NE(result.status, 0);
  EXPECT_THAT(result.output, Not(HasSubstr("method return")));
  EXPECT_TRUE(service.waitForRefused(1));
  EXPECT_EQ(service.accepted(), 0U);
}

TEST(AdmissionConnectionTest, AnotherUserInTheGroupIsAdmittedAndServed) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  ServiceConnectionSettings settings;
  settings.capabilityGroup = [] { return std::optional<gid_t>(kGroup); };
  TestService service(settings, false);
  const auto result = runCommand(asStranger("--groups 7,4242", callClear(service)));
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.output, HasSubstr("method return"));
  EXPECT_EQ(service.refused(), 0U);
  EXPECT_EQ(service.peer()->connection().effectiveUserIdentifier(), kStranger);
}

TEST(AdmissionConnectionTest, MoreGroupsThanAreReadAtFirstAreAllSeen) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  ServiceConnectionSettings settings;
  settings.capabilityGroup = [] { return std::optional<gid_t>(kGroup); };
  TestService service(settings, false);
  std::string groups = "--groups ";
  for (int group = 3000; group < 3500; ++group)
    groups += std::to_string(group) + ",";
  const auto result = runCommand(asStranger(groups + "4242", callClear(service)));
  EXPECT_EQ(result.status, 0) << result.output;
}

TEST(AdmissionConnectionTest, CredentialsAreThoseOfTheOtherEnd) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const FileDescriptor one(ends[0]);
  const FileDescriptor other(ends[1]);
  const auto credentials = readPeerCredentials(one.get());
  ASSERT_TRUE(credentials);
  EXPECT_EQ(credentials->processIdentifier, ::getpid());
  EXPECT_EQ(credentials->userIdentifier, ::geteuid());
  EXPECT_EQ(credentials->groupIdentifier, ::getegid());
  std::vector<gid_t> groups(static_cast<std::size_t>(::getgroups(0, nullptr)));
  ASSERT_GE(::getgroups(static_cast<int>(groups.size()), groups.data()), 0);
  for (const gid_t group : groups)
    EXPECT_THAT(credentials->supplementaryGroups, Contains(group));
  const FileDescriptor noSocket(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_FALSE(readPeerCredentials(noSocket.get()));
}

TEST(AdmissionConnectionTest, SystemGroupsAreFoundByName) {
  EXPECT_EQ(systemGroup("root"), 0U);
  EXPECT_EQ(systemGroup("no-such-group-here"), std::nullopt);
}

}  // namespace
}  // namespace quillsift::testing
