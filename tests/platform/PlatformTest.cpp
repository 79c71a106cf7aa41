#include <gtest/gtest.h>

#include <memory>
#include <utility>

#include "platform/Platform.h"
#include "tests/doubles/TestPlatform.h"

namespace quillsift {
namespace {

TEST(PlatformDeathTest, AbortsWhenNoneIsInstalled) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH((void)Platform::current(), "no platform is installed");
}

TEST(PlatformTest, InstallingGivesBackTheOneBefore) {
  auto first = std::make_unique<Platform>();
  Platform* const firstAddress = first.get();
  EXPECT_EQ(Platform::install(std::move(first)), nullptr);
  EXPECT_EQ(&Platform::current(), firstAddress);
  const auto before = Platform::install(std::make_unique<Platform>());
  EXPECT_EQ(before.get(), firstAddress);
  EXPECT_NE(&Platform::current(), firstAddress);
  (void)Platform::install(nullptr);
}

TEST(PlatformTest, ATestPlatformHasEveryRoleAndGoesAgain) {
  auto outer = std::make_unique<Platform>();
  Platform* const outerAddress = outer.get();
  (void)Platform::install(std::move(outer));
  {
    TestPlatform platform;
    const Platform& current = Platform::current();
    EXPECT_EQ(current.workQueues.get(), &platform.workQueues());
    EXPECT_EQ(current.serviceConnections.get(), &platform.serviceConnections());
    EXPECT_EQ(current.processLauncher.get(), &platform.processLauncher());
    EXPECT_EQ(current.systemLog.get(), &platform.systemLog());
    EXPECT_EQ(current.systemConsole.get(), &platform.systemConsole());
    EXPECT_EQ(current.hostInformation.get(), &platform.hostInformation());
    EXPECT_EQ(current.deviceRegistry.get(), &platform.deviceRegistry());
    EXPECT_EQ(current.mounts.get(), &platform.mounts());
    EXPECT_EQ(current.fileSystem.get(), &platform.fileSystem());
    EXPECT_EQ(current.outputFiles.get(), &platform.outputFiles());
    EXPECT_EQ(current.outputTrees.get(), &platform.outputTrees());
    EXPECT_EQ(current.displays.get(), &platform.displays());
    EXPECT_EQ(current.logArchiveBuilder.get(), &platform.logArchiveBuilder());
    EXPECT_EQ(current.remoteDevices.get(), &platform.remoteDevices());
    EXPECT_EQ(current.recoveryAgent.get(), &platform.recoveryAgent());
    EXPECT_EQ(current.installerProgress.get(), &platform.installerProgress());
    EXPECT_EQ(current.processTable.get(), &platform.processTable());
    EXPECT_EQ(current.visualFlash.get(), &platform.visualFlash());
    EXPECT_EQ(current.kernelMessages.get(), &platform.kernelMessages());
  }
  EXPECT_EQ(&Platform::current(), outerAddress);
  (void)Platform::install(nullptr);
}

}  // namespace
}  // namespace quillsift
