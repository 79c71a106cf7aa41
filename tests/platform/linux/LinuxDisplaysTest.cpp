#include <gmock/gmock.h>

#include <cerrno>

#include "platform/linux/LinuxDisplays.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// What a backend knows, changed by the test while LinuxDisplays owns the backend.
struct Knowledge {
  int error = 0;
  std::vector<ActiveDisplay> displays;
  int asked = 0;
  std::vector<std::uint32_t> captured;
};

class FakeBackend : public DisplayBackend {
 public:
  explicit FakeBackend(Knowledge& knowledge) : knowledge_(knowledge) {}

  int list(std::vector<ActiveDisplay>* displays) override {
    ++knowledge_.asked;
    if (knowledge_.error == 0) *displays = knowledge_.displays;
    return knowledge_.error;
  }
  std::unique_ptr<ScreenImage> capture(const ActiveDisplay& display) override {
    knowledge_.captured.push_back(display.object);
    return std::make_unique<Image>();
  }

 private:
  class Image : public ScreenImage {
    std::optional<QSData> encodeAsPNG() override { return QSData(); }
  };

  Knowledge& knowledge_;
};

class LinuxDisplaysTest : public ::testing::Test {
 protected:
  static LinuxDisplays::Backends backends(Knowledge& first, Knowledge& second) {
    LinuxDisplays::Backends both;
    both.push_back(std::make_unique<FakeBackend>(first));
    both.push_back(std::make_unique<FakeBackend>(second));
    return both;
  }

  std::vector<std::uint32_t> list(std::size_t room = 8) {
    std::vector<std::uint32_t> result = {999};
    EXPECT_EQ(displays.activeDisplays(room, &result), 0);
    return result;
  }

  Knowledge first, second, console;
  LinuxDisplays displays{backends(first, second), std::make_unique<FakeBackend>(console)};
};

TEST_F(LinuxDisplaysTest, ListsWhatTheFirstBackendShows) {
  first.displays = {{.object = 41}, {.object = 42}};
  second.displays = {{.object = 51}};
  EXPECT_THAT(list(), ElementsAre(41, 42));
  EXPECT_EQ(second.asked, 0);
  EXPECT_NE(displays.capture(42), nullptr);
  EXPECT_THAT(first.captured, ElementsAre(42));
}

TEST_F(LinuxDisplaysTest, GoesOnToABackendThatShowsSomething) {
  second.displays = {{.object = 51}};
  EXPECT_THAT(list(), ElementsAre(51));
  first.error = EACCES;
  EXPECT_THAT(list(), ElementsAre(51));
  first.error = ENOSYS;
  EXPECT_THAT(list(), ElementsAre(51));
  EXPECT_EQ(console.asked, 0);
}

TEST_F(LinuxDisplaysTest, PrefersABackendThatCanReadAllItShows) {
  first.displays = {{.object = 41}, {.object = 42, .readable = false}};
  second.displays = {{.object = 51}};
  EXPECT_THAT(list(), ElementsAre(51));
  EXPECT_NE(displays.capture(51), nullptr);
  EXPECT_THAT(second.captured, ElementsAre(51));
}

TEST_F(LinuxDisplaysTest, ListsWhatCannotBeReadWhereNobodyElseShowsAnything) {
  first.displays = {{.object = 41, .readable = false}};
  EXPECT_THAT(list(), ElementsAre(41));
  second.error = ETIMEDOUT;
  EXPECT_THAT(list(), ElementsAre(41));
  second.error = 0;
  second.displays = {{.object = 51, .readable = false}};
  EXPECT_THAT(list(), ElementsAre(41));
  EXPECT_EQ(console.asked, 0);
}

TEST_F(LinuxDisplaysTest, AsksTheConsoleWhereNobodyElseAnswers) {
  first.error = ENOSYS;
  second.error = ECONNRESET;
  console.displays = {{.object = 0}};
  EXPECT_THAT(list(), ElementsAre(0));
}

TEST_F(LinuxDisplaysTest, ListsNothingOnAMachineWhoseDisplaysAreOff) {
  first.error = ENOSYS;
  console.displays = {{.object = 0}};
  EXPECT_THAT(list(), IsEmpty());
  EXPECT_EQ(console.asked, 0);
}

TEST_F(LinuxDisplaysTest, SaysThatNobodyCanBeAsked) {
  first.error = second.error = console.error = ENOSYS;
  std::vector<std::uint32_t> untouched = {999};
  EXPECT_EQ(displays.activeDisplays(8, &untouched), ENOSYS);
  EXPECT_THAT(untouched, ElementsAre(999));
}

TEST_F(LinuxDisplaysTest, SaysWhyThoseWhoAreThereCouldNotBeAsked) {
  first.error = ENOSYS;
  second.error = ETIMEDOUT;
  console.error = EACCES;
  std::vector<std::uint32_t> none;
  EXPECT_EQ(displays.activeDisplays(8, &none), ETIMEDOUT);
}

TEST_F(LinuxDisplaysTest, ListsTheFirstEightOfNine) {
  for (std::uint32_t i = 1; i <= 9; ++i)
    first.displays.push_back({.object = i});
  EXPECT_THAT(list(), ElementsAre(1, 2, 3, 4, 5, 6, 7, 8));
  EXPECT_EQ(displays.capture(9), nullptr);
  EXPECT_THAT(first.captured, IsEmpty());
  EXPECT_THAT(list(0), IsEmpty());
}

TEST_F(LinuxDisplaysTest, GivesEachDisplayAnIdentifierOfItsOwn) {
  first.displays = {{.source = "card0", .object = 41},
                    {.source = "card0", .object = 42},
                    {.source = "card1", .object = 41, .mirrors = true}};
  EXPECT_THAT(list(), ElementsAre(41, 42, 43));
  EXPECT_FALSE(displays.mirrorsAnother(41));
  EXPECT_TRUE(displays.mirrorsAnother(43));
  EXPECT_NE(displays.capture(43), nullptr);
  EXPECT_THAT(first.captured, ElementsAre(41));
}

TEST_F(LinuxDisplaysTest, KnowsNoDisplayThatItHasNotListed) {
  first.displays = {{.object = 41, .mirrors = true}};
  EXPECT_FALSE(displays.mirrorsAnother(41));
  EXPECT_EQ(displays.capture(41), nullptr);
  EXPECT_THAT(list(), ElementsAre(41));
  EXPECT_TRUE(displays.mirrorsAnother(41));
  first.displays = {{.object = 42}};
  EXPECT_THAT(list(), ElementsAre(42));
  EXPECT_FALSE(displays.mirrorsAnother(41));
  EXPECT_EQ(displays.capture(41), nullptr);
}

TEST_F(LinuxDisplaysTest, KeepsItsListingWhenTheNextOneFails) {
  first.displays = {{.object = 41}};
  EXPECT_THAT(list(), ElementsAre(41));
  first.error = second.error = console.error = EIO;
  std::vector<std::uint32_t> none;
  EXPECT_EQ(displays.activeDisplays(8, &none), EIO);
  EXPECT_NE(displays.capture(41), nullptr);
}

TEST(LinuxDisplaysOfHostTest, LooksInThePlatformTree) {
  const ScratchTree scratch;
  for (const char* path : {"dev/dri", "tmp/.X11-unix", "dev/vcsa"})
    scratch.link(path, "/dev/null");
  const auto displays = LinuxDisplays::ofHost(scratch.tree());
  std::vector<std::uint32_t> listed;
  EXPECT_EQ(displays->activeDisplays(8, &listed), ENOSYS);

  const ScratchTree withConsole;
  for (const char* path : {"dev/dri", "tmp/.X11-unix"})
    withConsole.link(path, "/dev/null");
  withConsole.write("dev/vcsa", std::string("\1\2\0\0h\7i\7", 8));
  const auto console = LinuxDisplays::ofHost(withConsole.tree());
  EXPECT_EQ(console->activeDisplays(8, &listed), 0);
  EXPECT_THAT(listed, ElementsAre(0));
  EXPECT_NE(console->capture(0), nullptr);
}

}  // namespace
}  // namespace quillsift
