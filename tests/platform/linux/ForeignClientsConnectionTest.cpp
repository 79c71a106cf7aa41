#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/platform/linux/RunningProgram.h"
#include "tests/platform/linux/ServiceFixture.h"

namespace quillsift::testing {
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;

constexpr const char* kTarget = " --dest io.vantor.test --object-path /io/vantor/quillsiftd ";

bool isInstalled(const std::string& program) {
  return runCommand("which " + program).status == 0;
}

#define NEED(program) \
  if (!isInstalled(program)) GTEST_SKIP() << program << " is not installed"

TEST(ForeignClientsConnectionTest, GdbusIntrospectsMethodsNotificationsAndArgumentNames) {
  NEED("gdbus");
  TestService service;
  const auto result = runCommand("gdbus introspect --address " + service.address() + kTarget);
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.output, HasSubstr("interface io.vantor.test.Methods {"));
  EXPECT_THAT(result.output, HasSubstr("out aa{sv} records"));
  EXPECT_THAT(result.output, HasSubstr("in  s text"));
  EXPECT_THAT(result.output, HasSubstr("interface io.vantor.test.Notifications {"));
  EXPECT_THAT(result.output, HasSubstr("changed(a{sv} info);"));
}

TEST(ForeignClientsConnectionTest, GdbusCallsAndSeesTheResults) {
  NEED("gdbus");
  TestService service;
  const std::string call = "gdbus call --address " + service.address() + kTarget + "--method ";
  auto result = runCommand(call + "io.vantor.test.Methods.echo hello true -- -5 7 0.5");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, "('hello', true, int64 -5, uint64 7, 0.5)\n");
  result = runCommand(call + "io.vantor.test.Methods.records");
  EXPECT_THAT(result.output, HasSubstr("'QSJobInfoSize': <uint64 17>"));
  EXPECT_THAT(result.output, HasSubstr("[12.5]"));
  result = runCommand(call + "org.freedesktop.DBus.Peer.Ping");
  EXPECT_EQ(result.output, "()\n");
}

TEST(ForeignClientsConnectionTest, GdbusIsToldWhatIsWrong) {
  NEED("gdbus");
  TestService service;
  const std::string call = "gdbus call --address " + service.address() + kTarget + "--method ";
  auto result = runCommand(call + "io.vantor.test.Methods.noSuchMethod");
  EXPECT_NE(result.status, 0);
  EXPECT_THAT(result.output, HasSubstr("UnknownMethod"));
  result = runCommand(call + "io.vantor.test.Methods.echo hello");
  EXPECT_NE(result.status, 0);
  EXPECT_THAT(result.output, HasSubstr("InvalidArgs"));
}

TEST(ForeignClientsConnectionTest, GdbusMonitorPrintsNotifications) {
  NEED("gdbus");
  TestService service;
  RunningProgram monitor({"gdbus", "monitor", "--address", service.address(), "--dest",
                          "io.vantor.test", "--object-path", "/io/vantor/quillsiftd"});
  ServiceConnection& connection = service.peer()->connection();
  ASSERT_TRUE(monitor.waitForOutput("is owned by"));
  // It listens from some moment after that, so it is told until it has heard.
  bool heard = false;
  for (int i = 0; !heard && i < 300; ++i) {
    connection.send("changed", {WireValue(testRecord(99))});
    heard = monitor.waitForOutput("'QSJobInfoSize': <uint64 99>", 100ms);
  }
  EXPECT_THAT(monitor.output(), HasSubstr("io.vantor.test.Notifications.changed ({"));
}

TEST(ForeignClientsConnectionTest, DbusSendCallsAndSeesTheResults) {
  NEED("dbus-send");
  TestService service;
  const auto result =
      runCommand("dbus-send --peer=" + service.address() +
                 " --print-reply /io/vantor/quillsiftd io.vantor.test.Methods.echo string:hello "
                 "boolean:true int64:-5 uint64:7 double:0.5");
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.output, HasSubstr("string \"hello\""));
  EXPECT_THAT(result.output, HasSubstr("int64 -5"));
}

TEST(ForeignClientsConnectionTest, ACallOfAPeerThatHangsUpAtOnceIsCarriedOut) {
  NEED("dbus-send");
  TestService service;
  for (std::size_t i = 0; i < 20; ++i) {
    const auto result =
        runCommand("dbus-send --peer=" + service.address() +
                   " --type=method_call /io/vantor/quillsiftd io.vantor.test.Methods.clear");
    EXPECT_EQ(result.status, 0);
    const auto peer = service.peer(i);
    ASSERT_TRUE(peer->waitFor("invalidated"));
    EXPECT_EQ(peer->events().front(), "clear");
  }
}

TEST(ForeignClientsConnectionTest, BusctlIntrospectsAndCalls) {
  NEED("busctl");
  TestService service;
  const std::string busctl = "busctl --address=" + service.address();
  const std::string target = " io.vantor.test /io/vantor/quillsiftd ";
  auto result = runCommand(busctl + " introspect" + target);
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.output, HasSubstr(".records"));
  EXPECT_THAT(result.output, HasSubstr(".progress"));
  result = runCommand(busctl + " call" + target +
                      "io.vantor.test.Methods echo sbxtd hello true -- -5 7 0.5");
  EXPECT_EQ(result.output, "sbxtd \"hello\" true -5 7 0.5\n");
  result = runCommand(busctl + " --expect-reply=no call" + target + "io.vantor.test.Methods clear");
  EXPECT_EQ(result.status, 0);
}

}  // namespace
}  // namespace quillsift::testing
