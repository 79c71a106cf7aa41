// The window-server information tool against a server of the test's own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "tests/platform/linux/FakeXServer.h"
#include "tests/platform/linux/XServerProcess.h"
#include "tests/tools/ScratchMachine.h"
#include "tools/ExitCodes.h"
#include "tools/Panes.h"

namespace quillsift::tools {
namespace {

using namespace quillsift::testing;
using namespace std::chrono_literals;
using namespace std::string_literals;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class PanesTest : public ::testing::Test {
 protected:
  PanesTest() {
    std::filesystem::create_directories(machine_.tree() + "/private/tmp");
    machine_.directory("/tmp/.X11-unix");
  }

  int run(const std::vector<std::string>& arguments = {}, std::chrono::milliseconds limit = 60s) {
    OutputPipe pipe;
    const Host host = machine_.host();
    int exitCode = 0;
    {
      Output output(pipe.writing());
      Invocation invocation{kPaneProgram, arguments, host, output};
      exitCode = reportPanes(invocation, limit);
    }
    line_ = pipe.printed();
    return exitCode;
  }
  // With servers that hang, which take all the time there is: as little as will do for the others,
  // and on a busy machine that can be much.
  int runUntilAnswered() {
    int exitCode = kExitNotHere;
    for (auto limit = 1s; exitCode == kExitNotHere && limit < 2min; limit *= 2)
      exitCode = run({}, limit);
    return exitCode;
  }
  // Where a process with these arguments listens, if it does.
  std::string addServer(const std::string& number, const std::string& moreArguments = {},
                        uid_t user = ::geteuid()) {
    const std::string process = "/proc/7" + number;
    machine_.file(process + "/cmdline", "Xvfb\0:"s + number + '\0' + moreArguments);
    const std::string identifier = std::to_string(user);
    machine_.file(process + "/status",
                  "Uid:\t0\t" + identifier + "\t0\t0\nGid:\t0\t" + identifier + "\t0\t0\n");
    return machine_.root() + "/tmp/.X11-unix/X" + number;
  }
  std::string path() const {
    return machine_.tree() + "/private/tmp/PaneServer.external.pinfo.plist";
  }
  std::string list() const {
    std::ifstream stream(path());
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  ScratchMachine machine_;
  std::string line_;
};

TEST_F(PanesTest, SaysWhenThereIsNoWindowServerAndLeavesNoOldFile) {
  machine_.treeFile("/private/tmp/PaneServer.external.pinfo.plist", "of another day");
  EXPECT_EQ(run(), kExitNotHere);
  EXPECT_THAT(line_, HasSubstr("no window server"));
  EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(PanesTest, SaysWhenNoWindowServerLetsItIn) {
  addServer("59999");
  EXPECT_EQ(run(), kExitNotHere);
  EXPECT_THAT(line_, HasSubstr("no window server lets us in"));
  EXPECT_TRUE(std::filesystem::is_empty(machine_.tree() + "/private/tmp"));
}

TEST_F(PanesTest, KnowsNoArguments) {
  EXPECT_EQ(run({"-x"}), kExitUnknownArguments);
}

TEST_F(PanesTest, SaysWhenItCannotWrite) {
  std::filesystem::remove(machine_.tree() + "/private/tmp");
  addServer("59999");
  EXPECT_EQ(run(), kExitNotHere);
  EXPECT_THAT(line_, HasSubstr("cannot write "));
}

TEST_F(PanesTest, LeavesTheWindowsOfAServerBehind) {
  const XServerProcess server("Xvfb -screen 0 320x200x24");
  ASSERT_TRUE(server.runs()) << "Xvfb does not start";
  xcb_connection_t* const client = ::xcb_connect(server.display().c_str(), nullptr);
  ASSERT_EQ(::xcb_connection_has_error(client), 0);
  const xcb_screen_t* const screen = ::xcb_setup_roots_iterator(::xcb_get_setup(client)).data;
  const xcb_window_t window = ::xcb_generate_id(client);
  ::xcb_create_window(client, XCB_COPY_FROM_PARENT, window, screen->root, 11, 22, 133, 144, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, 0, nullptr);
  ::xcb_change_property(client, XCB_PROP_MODE_REPLACE, window, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING,
                        8, 13, "instance\0Klas");
  ::xcb_change_property(client, XCB_PROP_MODE_REPLACE, window, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8,
                        7, "private");
  ::xcb_map_window(client, window);
  std::free(::xcb_get_input_focus_reply(client, ::xcb_get_input_focus(client), nullptr));

  addServer(server.display().substr(1));
  server.linkSocket(machine_.root() + server.socket());
  machine_.treeLink("/private/tmp/PaneServer.external.pinfo.plist.new", "/nowhere");
  EXPECT_EQ(run(), 0) << line_;
  EXPECT_EQ(line_, "");
  const std::string text = list();
  EXPECT_THAT(text, StartsWith("<?xml version=\"1.0\" encoding=\"UTF-8\"?>"));
  EXPECT_THAT(text, HasSubstr("<integer>11</integer>"));
  EXPECT_THAT(text, HasSubstr("<integer>22</integer>"));
  EXPECT_THAT(text, HasSubstr("<integer>133</integer>"));
  EXPECT_THAT(text, HasSubstr("<integer>144</integer>"));
  EXPECT_THAT(text, HasSubstr("<integer>320</integer>"));
  EXPECT_THAT(text, HasSubstr("<string>Klas</string>"));
  EXPECT_THAT(text, HasSubstr("<string>" + server.display() + "</string>"));
  EXPECT_THAT(text, Not(HasSubstr("private")));
  struct stat status {};
  ASSERT_EQ(::stat(path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  ::xcb_disconnect(client);
}

TEST_F(PanesTest, LosesOnlyTheEntriesOfServersThatHang) {
  const FakeXServer full(addServer("1"), {}, Silence::beforeAccepting);
  const FakeXServer mute(addServer("2"), {}, Silence::beforeWelcome);
  const FakeXServer hanging(addServer("3"), {}, Silence::beforeAnswers);
  const FakeXServer answering(addServer("4"), {});
  EXPECT_EQ(runUntilAnswered(), 0) << line_;
  EXPECT_THAT(list(), HasSubstr("<string>:4</string>"));
  EXPECT_THAT(list(), HasSubstr("<string>Fake</string>"));
  for (const char* display : {":1", ":2", ":3"})
    EXPECT_THAT(list(), Not(HasSubstr("<string>"s + display + "</string>")));
}

TEST_F(PanesTest, WaitsForAllServersAtOnce) {
  std::vector<std::unique_ptr<FakeXServer>> servers;
  for (int number = 1; number <= 8; ++number) {
    servers.push_back(std::make_unique<FakeXServer>(addServer(std::to_string(number)), FakeScreen(),
                                                    Silence::beforeWelcome));
  }
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(run({}, 4s), kExitNotHere);
  // One after the other would take 32 seconds.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 30s);
}

TEST_F(PanesTest, BelievesNoCountsOfAServer) {
  const std::vector<Lie> lies = {
      {.answer = Answer::welcome, .offset = 24, .bytes = "\xFF\xFF"},  // of the vendor's name
      {.answer = Answer::welcome, .offset = 28, .bytes = "\xFF"},      // screens
      {.answer = Answer::welcome, .offset = 87, .bytes = "\xFF"},      // depths
      {.answer = Answer::outputs, .offset = 18, .bytes = "\xFF\xFF"},  // outputs
      {.answer = Answer::output, .offset = 34, .bytes = "\xFF\xFF"},   // of an output's name
      {.answer = Answer::output, .cutAt = 32},
      {.answer = Answer::attributes, .cutAt = 32},
      {.answer = Answer::property, .offset = 18, .bytes = "\xFF"},      // of a class
      {.answer = Answer::property, .offset = 1, .bytes = "\x20"},       // of its characters
      {.answer = Answer::children, .offset = 16, .bytes = "\xFF\xFF"},  // windows
  };
  const std::string socket = addServer("1");
  for (const Lie& lie : lies) {
    const FakeXServer server(socket, {.outputs = {{}}, .lies = {lie}});
    EXPECT_EQ(run(), 0) << lie.offset;
    const std::string text = list();
    EXPECT_THAT(text, HasSubstr("<string>:1</string>")) << lie.offset;
    EXPECT_THAT(text, Not(HasSubstr("<key>Children</key>"))) << lie.offset;
    EXPECT_THAT(text, Not(HasSubstr("<data>"))) << lie.offset;  // bytes of nobody's
    if (lie.answer == Answer::property) {
      EXPECT_THAT(text, Not(HasSubstr("<key>Class</key>"))) << lie.offset;
    }
    std::filesystem::remove(socket);
  }
}

TEST_F(PanesTest, SurvivesAServerThatPromisesMoreThanThereIsMemory) {
  const FakeXServer bad(
      addServer("1"),
      {.lies = {{.answer = Answer::children, .offset = 4, .bytes = "\xFF\xFF\xFF\x7F"}}});
  const FakeXServer good(addServer("2"), {});
  EXPECT_EQ(runUntilAnswered(), 0) << line_;
  EXPECT_THAT(list(), HasSubstr("<string>:2</string>"));
}

TEST_F(PanesTest, ShowsTheServersOwnCookie) {
  const FakeXServer server(addServer("1", "-auth\0/auth\0"s), {});
  machine_.file("/auth", "\1\0\0\0\0\0\0\22MIT-MAGIC-COOKIE-1\0\6cookie"s);
  EXPECT_EQ(run(), 0) << line_;
  EXPECT_THAT(server.proofs(), HasSubstr("cookie"));
}

TEST_F(PanesTest, TellsAServerNoCookieThatItsUserCannotRead) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to have a server of somebody else";
  constexpr uid_t kNobody = 65534;
  const std::string socket = addServer("1", "-auth\0/auth\0"s, kNobody);
  machine_.file("/auth", "\1\0\0\0\0\0\0\22MIT-MAGIC-COOKIE-1\0\6cookie"s, 0600);
  std::filesystem::permissions(machine_.root() + "/tmp/.X11-unix", std::filesystem::perms(0777));
  ASSERT_EQ(::seteuid(kNobody), 0);
  const FakeXServer server(socket, {});
  ASSERT_EQ(::seteuid(0), 0);
  EXPECT_EQ(run(), 0) << line_;
  EXPECT_EQ(server.proofs(), "");
  EXPECT_THAT(list(), HasSubstr("<string>:1</string>"));
}

TEST_F(PanesTest, AsksNobodyWhoListensInThePlaceOfAServer) {
  constexpr uid_t kSomebody = 4711;
  const std::string socket = addServer("1", {}, kSomebody);
  const FakeXServer server(socket, {});
  std::filesystem::permissions(socket, std::filesystem::perms(0777));
  EXPECT_EQ(run(), kExitNotHere);
  EXPECT_THAT(line_, HasSubstr("no window server lets us in"));
}

TEST_F(PanesTest, DoesNotWaitForTheWriterOfAnAuthorityFile) {
  const FakeXServer server(addServer("1", "-auth\0/fifo\0"s), {});
  ASSERT_EQ(::mkfifo((machine_.root() + "/fifo").c_str(), 0600), 0);
  EXPECT_EQ(run(), 0) << line_;
}

}  // namespace
}  // namespace quillsift::tools
