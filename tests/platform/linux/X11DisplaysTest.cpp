#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>

#include "platform/linux/LinuxDisplays.h"
#include "platform/linux/X11Displays.h"
#include "tests/platform/linux/DecodedPicture.h"
#include "tests/platform/linux/FakeXServer.h"
#include "tests/platform/linux/XServer.h"

namespace quillsift {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using namespace quillsift::testing;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// For servers that hang on purpose.
constexpr auto kShortLimit = 200ms;
// For the others, on however busy a machine.
constexpr auto kLongLimit = 60s;

class X11DisplaysTest : public ::testing::Test {
 protected:
  void SetUp() override { std::signal(SIGPIPE, SIG_IGN); }

  int list(X11Displays& backend) {
    listed.clear();
    return backend.list(&listed);
  }
  std::optional<DecodedPicture> capture(std::size_t index) {
    return decode(displays.capture(listed.at(index)));
  }
  std::vector<bool> mirrors() const {
    std::vector<bool> result;
    for (const ActiveDisplay& display : listed)
      result.push_back(display.mirrors);
    return result;
  }
  std::string socket(int number = 0) const {
    return scratch.makeDirectory("tmp/.X11-unix") + "/X" + std::to_string(number);
  }
  // The first pixels of a picture of this screen; empty when it could not be taken.
  std::vector<std::uint32_t> pixelsOf(const FakeScreen& screen) {
    ::unlink(socket().c_str());
    const FakeXServer server(socket(), screen);
    EXPECT_EQ(list(displays), 0);
    if (listed.size() != 1) return {};
    const auto picture = capture(0);
    if (!picture) return {};
    return {picture->at(0, 0), picture->at(1, 0), picture->at(0, 1)};
  }

  const ScratchTree scratch;
  X11Displays displays{scratch.tree(), kLongLimit};
  X11Displays impatient{scratch.tree(), kShortLimit};
  std::vector<ActiveDisplay> listed;
};

TEST_F(X11DisplaysTest, HasNobodyToAskWithoutASocket) {
  scratch.link("tmp/.X11-unix", "/dev/null");
  EXPECT_EQ(list(displays), ENOSYS);
}

TEST_F(X11DisplaysTest, HasNobodyToAskBehindTheSocketOfADeadServer) {
  const auto server = XServer::virtualScreen("64x64x24");
  server->putInto(scratch);
  server->kill();
  EXPECT_EQ(list(displays), ENOSYS);
}

TEST_F(X11DisplaysTest, CapturesWhatWasDrawn) {
  const auto server = XServer::virtualScreen("640x480x24");
  server->putInto(scratch);
  server->draw("0 0 640 480 203040 100 50 3 2 FF8000");
  ASSERT_EQ(list(displays), 0);
  ASSERT_EQ(listed.size(), 1U);
  EXPECT_FALSE(listed[0].mirrors);
  EXPECT_TRUE(listed[0].readable);
  const auto picture = capture(0);
  ASSERT_TRUE(picture);
  EXPECT_EQ(picture->width, 640U);
  EXPECT_EQ(picture->height, 480U);
  EXPECT_EQ(picture->at(100, 50), 0xFF8000U);
  EXPECT_EQ(picture->at(102, 51), 0xFF8000U);
  EXPECT_EQ(picture->at(103, 51), 0x203040U);
  EXPECT_EQ(picture->at(102, 52), 0x203040U);
  EXPECT_EQ(picture->at(639, 479), 0x203040U);
}

TEST_F(X11DisplaysTest, CapturesEveryDepthThatServersHave) {
  for (const char* screen : {"37x11x16", "37x11x15", "37x11x24", "37x11x30"}) {
    const auto server = XServer::virtualScreen(screen);
    const ScratchTree tree;
    server->putInto(tree);
    server->draw("0 0 37 11 FF0000 1 1 1 1 00FF00 36 10 1 1 0000FF");
    X11Displays one(tree.tree(), kLongLimit);
    ASSERT_EQ(list(one), 0) << screen;
    const auto picture = decode(one.capture(listed.at(0)));
    ASSERT_TRUE(picture) << screen;
    EXPECT_EQ(picture->at(0, 0), 0xFF0000U) << screen;
    EXPECT_EQ(picture->at(1, 1), 0x00FF00U) << screen;
    EXPECT_EQ(picture->at(36, 10), 0x0000FFU) << screen;
  }
}

TEST_F(X11DisplaysTest, CapturesNothingWhereAPaletteIsNeeded) {
  const auto server = XServer::virtualScreen("64x64x8", "-cc 3");  // PseudoColor
  server->putInto(scratch);
  ASSERT_EQ(list(displays), 0);
  EXPECT_FALSE(capture(0));
}

TEST_F(X11DisplaysTest, CapturesNothingOfAServerThatHasGone) {
  const auto server = XServer::virtualScreen("64x64x24");
  server->putInto(scratch);
  ASSERT_EQ(list(displays), 0);
  server->kill();
  EXPECT_FALSE(capture(0));
}

TEST_F(X11DisplaysTest, TakesTheFirstServerThatIsThere) {
  const auto dead = XServer::virtualScreen("64x64x24");
  dead->putInto(scratch, 2);
  dead->kill();
  const auto server = XServer::virtualScreen("128x64x24");
  server->putInto(scratch, 10);
  const auto other = XServer::virtualScreen("256x64x24");
  other->putInto(scratch, 11);
  ASSERT_EQ(list(displays), 0);
  ASSERT_EQ(listed.size(), 1U);
  EXPECT_EQ(capture(0).value().width, 128U);
}

TEST_F(X11DisplaysTest, ProvesItselfWithTheServersOwnCookie) {
  const std::string file = scratch.at("authority");
  ASSERT_EQ(runCommand("xauth -q -f " + file + " add :0 . 00112233445566778899aabbccddeeff").status,
            0);
  const auto server = XServer::virtualScreen("64x64x24", "-auth " + file);
  server->putInto(scratch);
  EXPECT_EQ(list(displays), 0);
  EXPECT_EQ(listed.size(), 1U);
  // The server keeps what it has read; without the file there is nothing to show it.
  ASSERT_EQ(::unlink(file.c_str()), 0);
  EXPECT_EQ(list(displays), EACCES);
}

TEST_F(X11DisplaysTest, KnowsOutputsAndTheirMirrors) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to start Xorg";
  const auto server = XServer::withOutputs();
  server->putInto(scratch);
  server->turnOn("DUMMY1", "640x480", "--same-as DUMMY0");
  server->turnOn("DUMMY2", "1024x768", "--right-of DUMMY0");
  server->run("xrandr --addmode DUMMY3 640x480");
  server->turnOn("DUMMY3", "800x600", "--same-as DUMMY0");  // the same place, another size
  server->draw("0 0 2048 1024 000001 639 479 1 1 AA0000 640 0 1 1 00BB00 799 599 1 1 0000CC");
  ASSERT_EQ(list(displays), 0);
  ASSERT_THAT(mirrors(), ElementsAre(false, true, false, false));
  EXPECT_EQ(capture(0).value().at(639, 479), 0xAA0000U);
  const auto right = capture(2);
  ASSERT_TRUE(right);
  EXPECT_EQ(right->width, 1024U);
  EXPECT_EQ(right->height, 768U);
  EXPECT_EQ(right->at(0, 0), 0x00BB00U);
  EXPECT_EQ(capture(3).value().at(799, 599), 0x0000CCU);

  // One goes between listing and capture, another changes.
  server->run("xrandr --output DUMMY2 --off");
  server->run("xrandr --output DUMMY3 --mode 640x480");
  EXPECT_FALSE(capture(2));
  EXPECT_EQ(capture(3).value().width, 640U);
}

TEST_F(X11DisplaysTest, AnswersWithoutADisplayWhenAllAreOff) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to start Xorg";
  const auto server = XServer::withOutputs();
  server->putInto(scratch);
  server->run("xrandr --output DUMMY0 --off");
  EXPECT_EQ(list(displays), 0);
  EXPECT_THAT(listed, IsEmpty());
}

TEST_F(X11DisplaysTest, GivesTheFirstEightOfNineOutputs) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to start Xorg";
  const auto server = XServer::withOutputs();
  server->putInto(scratch);
  for (int i = 1; i <= 8; ++i) {
    server->turnOn("DUMMY" + std::to_string(i), "640x480",
                   i < 3 ? "--right-of DUMMY" + std::to_string(i - 1) : "--same-as DUMMY1");
  }
  ASSERT_EQ(list(displays), 0);
  EXPECT_EQ(listed.size(), 9U);
  LinuxDisplays::Backends backends;
  backends.push_back(std::make_unique<X11Displays>(scratch.tree(), kLongLimit));
  LinuxDisplays whole(std::move(backends), nullptr);
  std::vector<std::uint32_t> identifiers;
  ASSERT_EQ(whole.activeDisplays(8, &identifiers), 0);
  ASSERT_EQ(identifiers.size(), 8U);
  EXPECT_FALSE(whole.mirrorsAnother(identifiers[2]));
  EXPECT_TRUE(whole.mirrorsAnother(identifiers[7]));
}

// --- servers that are odd or worse

TEST_F(X11DisplaysTest, TakesAServerWithoutOutputsForOneDisplay) {
  EXPECT_THAT(pixelsOf({.image = "\1\2\3\0\4\5\6\0\7\10\11\0\0\0\0\0"s}),
              ElementsAre(0x030201, 0x060504, 0x090807));
}

TEST_F(X11DisplaysTest, ReadsImagesWithTheHighByteFirst) {
  EXPECT_THAT(pixelsOf({.highByteFirst = true, .image = "\0\1\2\3\0\4\5\6\0\7\10\11\0\0\0\0"s}),
              ElementsAre(0x010203, 0x040506, 0x070809));
}

TEST_F(X11DisplaysTest, SkipsThePaddingOfScanlines) {
  // Two pixels of three bytes, padded to eight.
  EXPECT_THAT(pixelsOf({.bitsPerPixel = 24, .image = "\1\2\3\4\5\6\0\0\7\10\11\0\0\0\0\0"s}),
              ElementsAre(0x030201, 0x060504, 0x090807));
  // Three pixels of one byte, padded to eight.
  EXPECT_THAT(pixelsOf({.depth = 8,
                        .bitsPerPixel = 8,
                        .scanlinePad = 64,
                        .redMask = 0xE0,
                        .greenMask = 0x1C,
                        .blueMask = 0x3,
                        .width = 3,
                        .image = "\xE0\x1C\3\0\0\0\0\0\xFF\0\0\0\0\0\0\0"s}),
              ElementsAre(0xFF0000, 0x00FF00, 0xFFFFFF));
}

TEST_F(X11DisplaysTest, CapturesNothingOfImagesThatCannotBe) {
  EXPECT_THAT(pixelsOf({.image = std::string(12, '\0')}), IsEmpty());
  EXPECT_THAT(pixelsOf({.image = ""}), IsEmpty());
  EXPECT_THAT(pixelsOf({.imageVisual = 34}), IsEmpty());
  EXPECT_THAT(pixelsOf({.bitsPerPixel = 4}), IsEmpty());
  EXPECT_THAT(pixelsOf({.bitsPerPixel = 0}), IsEmpty());
  EXPECT_THAT(pixelsOf({.bitsPerPixel = 64}), IsEmpty());
  EXPECT_THAT(pixelsOf({.scanlinePad = 0}), IsEmpty());
  EXPECT_THAT(pixelsOf({.redMask = 0}), IsEmpty());
  EXPECT_THAT(pixelsOf({.visualClass = 3}), IsEmpty());
  EXPECT_THAT(pixelsOf({.width = 65535, .height = 65535}), IsEmpty());
}

TEST_F(X11DisplaysTest, LeavesOutOutputsThatShowNothing) {
  const FakeXServer server(socket(), {.outputs = {{.hasController = false},
                                                  {.mode = 0},
                                                  {.width = 0},
                                                  {.height = 0},
                                                  {.x = 2},
                                                  {.x = -1}}});
  EXPECT_EQ(list(displays), 0);
  ASSERT_EQ(listed.size(), 2U);
  EXPECT_THAT(mirrors(), ElementsAre(false, false));
  EXPECT_TRUE(capture(0));
}

TEST_F(X11DisplaysTest, TakesThePrimaryOutputForTheOriginalOfItsMirrors) {
  const std::vector<FakeOutput> outputs = {{}, {.x = 2}, {}, {.x = 2}, {}};
  const auto mirrorsWith = [&](std::size_t primary) {
    ::unlink(socket().c_str());
    const FakeXServer server(socket(), {.outputs = outputs, .primary = primary});
    EXPECT_EQ(list(displays), 0);
    return mirrors();
  };
  EXPECT_THAT(mirrorsWith(0), ElementsAre(false, false, true, true, true));
  EXPECT_THAT(mirrorsWith(1), ElementsAre(false, false, true, true, true));
  EXPECT_THAT(mirrorsWith(3), ElementsAre(true, false, false, true, true));
  EXPECT_THAT(mirrorsWith(4), ElementsAre(false, true, true, false, true));
}

TEST_F(X11DisplaysTest, AsksForNoOutputsThatAnOldServerWouldLookForAnew) {
  const FakeXServer server(socket(), {.outputs = {{}, {.x = 2}}, .minorVersion = 2});
  EXPECT_EQ(list(displays), 0);
  EXPECT_EQ(listed.size(), 1U);
}

TEST_F(X11DisplaysTest, HasNoPictureOfAWaylandCompositorsOutputs) {
  const FakeXServer server(socket(), {.outputs = {{.name = "XWAYLAND0"}}});
  EXPECT_EQ(list(displays), 0);
  ASSERT_EQ(listed.size(), 1U);
  EXPECT_FALSE(listed[0].readable);
  EXPECT_FALSE(capture(0));
}

TEST_F(X11DisplaysTest, ListsNoScreenWithoutPixels) {
  const FakeXServer server(socket(), {.width = 0});
  EXPECT_EQ(list(displays), 0);
  EXPECT_THAT(listed, IsEmpty());
}

TEST_F(X11DisplaysTest, GivesUpOnAServerThatHangs) {
  for (const Silence silence : {Silence::beforeWelcome, Silence::beforeAnswers}) {
    ::unlink(socket().c_str());
    const FakeXServer server(socket(), {}, silence);
    EXPECT_EQ(list(impatient), ETIMEDOUT);
    EXPECT_THAT(listed, IsEmpty());
    EXPECT_EQ(impatient.capture({.source = socket(), .object = 17}), nullptr);
  }
}

TEST_F(X11DisplaysTest, GivesUpOnAServerThatNoLongerAccepts) {
  const FakeXServer server(socket(), {}, Silence::beforeAccepting);
  EXPECT_EQ(list(impatient), ETIMEDOUT);  // the first one waits for its turn to be accepted
  EXPECT_EQ(list(impatient), ETIMEDOUT);
}

TEST_F(X11DisplaysTest, GivesUpOnAServerThatHangsInTheMiddleOfAnImage) {
  const FakeXServer server(socket(), {}, Silence::insideImage);
  ASSERT_EQ(list(displays), 0);
  EXPECT_EQ(impatient.capture(listed.at(0)), nullptr);
}

TEST_F(X11DisplaysTest, GivesUpOnAServerThatPromisesMoreThanItSends) {
  const FakeXServer server(socket(), {.imageWords = 1000000});
  ASSERT_EQ(list(displays), 0);
  EXPECT_EQ(impatient.capture(listed.at(0)), nullptr);
}

TEST_F(X11DisplaysTest, SurvivesAServerThatHangsUp) {
  for (const HangUp hangUp : {HangUp::beforeImage, HangUp::insideImage}) {
    ::unlink(socket().c_str());
    const FakeXServer server(socket(), {}, Silence::never, hangUp);
    ASSERT_EQ(list(displays), 0);
    EXPECT_FALSE(capture(0));
  }
  ::unlink(socket().c_str());
  const FakeXServer server(socket(), {}, Silence::never, HangUp::beforeWelcome);
  EXPECT_EQ(list(displays), EACCES);
}

TEST_F(X11DisplaysTest, AsksFewOfManyServersThatHang) {
  std::vector<std::unique_ptr<FakeXServer>> servers;
  for (int i = 0; i < 8; ++i)
    servers.push_back(
        std::make_unique<FakeXServer>(socket(i), FakeScreen(), Silence::beforeWelcome));
  const FakeXServer good(socket(8), {});
  EXPECT_EQ(list(impatient), ETIMEDOUT);
  EXPECT_THAT(listed, IsEmpty());
}

TEST_F(X11DisplaysTest, GoesOnAfterAServerThatHangs) {
  const FakeXServer hanging(socket(0), {}, Silence::beforeWelcome);
  const FakeXServer good(socket(1), {});
  // The limit is each server's: it must be too long for none but the hanging one.
  int error = ETIMEDOUT;
  for (auto limit = 1s; error == ETIMEDOUT && limit <= kLongLimit; limit *= 2) {
    X11Displays backend(scratch.tree(), limit);
    error = list(backend);
  }
  EXPECT_EQ(error, 0);
  EXPECT_EQ(listed.size(), 1U);
}

TEST_F(X11DisplaysTest, BelievesNoCountsThatLeadOutOfAWelcome) {
  constexpr std::size_t kVendor = 24, kScreens = 28, kFormats = 29, kDepths = 48 + 39,
                        kVisuals = 90;
  for (const Lie& lie : std::vector<Lie>{{.offset = kVendor, .bytes = "\xFF\xFF"},
                                         {.offset = kFormats, .bytes = "\xFF"},
                                         {.offset = kDepths, .bytes = "\xFF"},
                                         {.offset = kVisuals, .bytes = "\xFF\xFF"},
                                         {.cutAt = 40},
                                         {.cutAt = 60}}) {
    ::unlink(socket().c_str());
    Lie told = lie;
    told.answer = Answer::welcome;
    const FakeXServer server(socket(), {.lies = {told}});
    EXPECT_EQ(list(displays), 0) << lie.offset;
    EXPECT_THAT(listed, IsEmpty()) << lie.offset;
    EXPECT_EQ(displays.capture({.source = socket(), .object = 17}), nullptr) << lie.offset;
  }
  // The screens that are there count.
  ::unlink(socket().c_str());
  const FakeXServer server(
      socket(), {.lies = {{.answer = Answer::welcome, .offset = kScreens, .bytes = "\xFF"}}});
  EXPECT_EQ(list(displays), 0);
  EXPECT_EQ(listed.size(), 1U);
  EXPECT_TRUE(capture(0));
}

TEST_F(X11DisplaysTest, BelievesNoCountsThatLeadOutOfAReply) {
  constexpr std::size_t kOutputs = 18, kNameLength = 34, kModes = 28;
  for (const Lie& lie :
       std::vector<Lie>{{.answer = Answer::outputs, .offset = kOutputs, .bytes = "\xFF\xFF"},
                        {.answer = Answer::outputs, .cutAt = 32},
                        {.answer = Answer::output, .offset = kNameLength, .bytes = "\xFF\xFF"},
                        {.answer = Answer::output, .offset = kModes, .bytes = "\xFF\xFF"},
                        {.answer = Answer::output, .cutAt = 32}}) {
    ::unlink(socket().c_str());
    const FakeXServer server(socket(), {.outputs = {{}}, .lies = {lie}});
    EXPECT_EQ(list(displays), 0) << lie.offset;
    EXPECT_THAT(listed, IsEmpty()) << lie.offset;
  }
}

TEST_F(X11DisplaysTest, RefusesAPathThatIsTooLong) {
  EXPECT_EQ(displays.capture({.source = std::string(200, 'x'), .object = 17}), nullptr);
  EXPECT_EQ(errno, ENAMETOOLONG);
}

}  // namespace
}  // namespace quillsift
