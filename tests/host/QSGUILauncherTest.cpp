#include <gmock/gmock.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "host/QSGUILauncher.h"
#include "tests/doubles/TestPlatform.h"

namespace quillsift {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kFrontEnd =
    "/System/Installation/CDIS/Quillsift GUI.app/Contents/LuminaOS/Quillsift GUI";

class QSGUILauncherTest : public testing::Test {
 protected:
  FakeProcessLauncher& launcher() { return platform_.processLauncher(); }
  std::vector<LogLine> lines() { return platform_.systemLog().lines(); }
  void finish(int status) {
    launcher().children().back()->finish(status);
    platform_.workQueues().drain();
  }

  TestPlatform platform_;
};

TEST_F(QSGUILauncherTest, StartsTheFrontEndAlone) {
  QSGUILauncher::launch();
  platform_.workQueues().drain();
  ASSERT_EQ(launcher().requests().size(), 1U);
  const LaunchRequest request = launcher().requests()[0];
  EXPECT_EQ(request.executablePath, kFrontEnd);
  EXPECT_THAT(request.arguments, IsEmpty());
  EXPECT_FALSE(request.captureOutput);
  EXPECT_THAT(lines(),
              ElementsAre(LogLine{118, "Quillsift GUI GUI application terminated successfully."}));
  EXPECT_THAT(platform_.systemConsole().writes(), IsEmpty());
}

TEST_F(QSGUILauncherTest, StartsOneAtATime) {
  launcher().scriptEverythingElse({.hangs = true});
  QSGUILauncher::launch();
  QSGUILauncher::launch();
  EXPECT_EQ(launcher().requests().size(), 1U);
  finish(0);
  QSGUILauncher::launch();
  EXPECT_EQ(launcher().requests().size(), 2U);
  finish(0);
}

TEST_F(QSGUILauncherTest, StartsOneHoweverManyAskAtOnce) {
  launcher().scriptEverythingElse({.hangs = true});
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i)
    threads.emplace_back([] { QSGUILauncher::launch(); });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(launcher().requests().size(), 1U);
  finish(0);
}

TEST_F(QSGUILauncherTest, SaysHowABadFrontEndEnded) {
  launcher().scriptEverythingElse({.exitCode = 3});
  QSGUILauncher::launch();
  platform_.workQueues().drain();
  EXPECT_THAT(lines(),
              ElementsAre(LogLine{115,
                                  "Quillsift GUI GUI application terminated unsuccessfully. "
                                  "Status: 3"}));
  QSGUILauncher::launch();
  platform_.workQueues().drain();
  EXPECT_EQ(launcher().requests().size(), 2U);
}

TEST_F(QSGUILauncherTest, TriesAgainAfterAStartThatFailed) {
  const QSError error = QSError::posix(ENOENT, kFrontEnd);
  launcher().script(kFrontEnd, {.launchError = error});
  QSGUILauncher::launch();
  EXPECT_THAT(lines(), ElementsAre(LogLine{118, "Failed to open:\"" + std::string(kFrontEnd) +
                                                    "\" with Error:" + error.description()}));
  QSGUILauncher::launch();
  EXPECT_EQ(launcher().requests().size(), 2U);
}

}  // namespace
}  // namespace quillsift
