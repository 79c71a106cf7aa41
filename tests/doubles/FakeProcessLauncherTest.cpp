#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>
#include <memory>
#include <thread>

#include "tests/doubles/FakeProcessLauncher.h"

namespace quillsift {
namespace {

class FakeProcessLauncherTest : public testing::Test {
 protected:
  std::shared_ptr<ChildProcess> launch(const char* path, std::vector<std::string> arguments = {}) {
    return launcher_.launch({path, std::move(arguments)}, nullptr);
  }

  FakeProcessLauncher launcher_;
};

TEST_F(FakeProcessLauncherTest, AProgramWithoutAScriptPrintsNothingAndSucceeds) {
  const auto child = launch("/bin/a");
  EXPECT_TRUE(child->isRunning());
  EXPECT_EQ(child->readOutputToEnd().length(), 0U);
  EXPECT_EQ(child->waitUntilExit(), 0);
  EXPECT_FALSE(child->isRunning());
}

TEST_F(FakeProcessLauncherTest, TheNewestScriptThatFitsDecides) {
  launcher_.scriptEverythingElse({.exitCode = 1});
  launcher_.script("/bin/a", {.exitCode = 2});
  launcher_.script("/bin/a", {"x"}, {.exitCode = 3});
  EXPECT_EQ(launch("/bin/a")->waitUntilExit(), 2);
  EXPECT_EQ(launch("/bin/a", {"x"})->waitUntilExit(), 3);
  EXPECT_EQ(launch("/bin/a", {"y"})->waitUntilExit(), 2);
  EXPECT_EQ(launch("/bin/b", {"x"})->waitUntilExit(), 1);
  launcher_.script("/bin/a", {.exitCode = 4});
  EXPECT_EQ(launch("/bin/a", {"x"})->waitUntilExit(), 4);
  EXPECT_EQ(launcher_.requests().size(), 5U);
  EXPECT_EQ(launcher_.child("/bin/b")->request().arguments, std::vector<std::string>{"x"});
}

TEST_F(FakeProcessLauncherTest, AFailedLaunchGivesItsErrorAndNoChild) {
  launcher_.script("/bin/a", {.launchError = QSError::posix(EACCES)});
  QSError error;
  EXPECT_EQ(launcher_.launch({"/bin/a", {}}, &error), nullptr);
  EXPECT_EQ(error.code, EACCES);
  EXPECT_EQ(launcher_.requests().size(), 1U);
  EXPECT_TRUE(launcher_.children().empty());
}

TEST_F(FakeProcessLauncherTest, AHangingChildRunsUntilItIsKilled) {
  launcher_.script("/bin/a", {.output = "out", .hangs = true});
  const auto child = launch("/bin/a");
  std::thread killer([&] {
    launcher_.waitForChildren(1);
    child->kill();
  });
  EXPECT_EQ(child->readOutputToEnd().text(), "out");
  EXPECT_EQ(child->waitUntilExit(), SIGKILL);
  killer.join();
  child->kill();
  EXPECT_TRUE(launcher_.children()[0]->wasKilled());
  EXPECT_EQ(launcher_.children()[0]->killCalls(), 2U);
}

TEST_F(FakeProcessLauncherTest, OutputLeftOpenEndsWhenItIsClosed) {
  launcher_.script("/bin/a", {.output = "out", .exitCode = 5, .leavesOutputOpen = true});
  const auto child = launch("/bin/a");
  child->kill();  // has no effect on who holds the output
  std::thread closer([&] { launcher_.children()[0]->closeOutput(); });
  EXPECT_EQ(child->readOutputToEnd().text(), "out");
  closer.join();
  EXPECT_EQ(child->waitUntilExit(), 5);
  EXPECT_FALSE(launcher_.children()[0]->wasKilled());
}

TEST_F(FakeProcessLauncherTest, AChildThatIsDroppedWhileItRunsIsAbandoned) {
  launcher_.script("/bin/a", {.hangs = true});
  launch("/bin/a").reset();
  EXPECT_TRUE(launcher_.children()[0]->wasAbandoned());
  EXPECT_TRUE(launcher_.children()[0]->wasReaped());
  auto ended = launch("/bin/b");
  (void)ended->waitUntilExit();
  ended.reset();
  EXPECT_TRUE(launcher_.children()[1]->wasReleased());
  EXPECT_FALSE(launcher_.children()[1]->wasAbandoned());
}

TEST_F(FakeProcessLauncherTest, ReleasingAllEndsEveryChildOfNowAndLater) {
  launcher_.script("/bin/a", {.hangs = true, .leavesOutputOpen = true});
  const auto before = launch("/bin/a");
  launcher_.releaseAll();
  const auto after = launch("/bin/a");
  for (const auto& child : {before, after}) {
    (void)child->readOutputToEnd();
    EXPECT_EQ(child->waitUntilExit(), SIGKILL);
  }
}

}  // namespace
}  // namespace quillsift
