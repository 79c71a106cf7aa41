#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "platform/linux/LinuxPlatform.h"
#include "tests/platform/linux/PrivateDevices.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

constexpr const char* kNoNamespace = "may not make a mount namespace here";

TEST(LinuxPlatformTest, UsesItsTreeForEveryRoleThatTakesPaths) {
  const ScratchTree scratch;
  scratch.write("etc/os-release", "BUILD_ID=25A123\n");
  scratch.write("private/var/log/system.log", "log");
  scratch.makeDirectory("sys/firmware/efi/efivars");
  const std::string console = scratch.write("dev/console", "");
  scratch.makeDirectory("private/tmp");

  const auto platform = makeLinuxPlatform({.treeDirectory = scratch.directory(), .socketPath = {}});
  EXPECT_EQ(platform->hostInformation->systemVersion()->at(kBuildVersionKey), "25A123");
  EXPECT_EQ(platform->fileSystem->readWholeFile("/private/var/log/system.log", nullptr)->text(),
            "log");
  EXPECT_NE(platform->deviceRegistry->objectAtPath("DrDeviceTree:/options"), nullptr);
  platform->systemConsole->write("line");
  EXPECT_EQ(platform->fileSystem->readWholeFile(console, nullptr)->text(), "line");
  EXPECT_TRUE(platform->mounts->makeDirectory("/private/tmp/NEW", 0700));
  EXPECT_TRUE(platform->fileSystem->isDirectory(scratch.at("private/tmp/NEW")));
}

TEST(LinuxPlatformTest, MakesNoDirectoryWhereTheTreeSaysThereIsNone) {
  const ScratchTree scratch;
  scratch.link("private/tmp", "/dev/null");
  const auto platform = makeLinuxPlatform({.treeDirectory = scratch.directory(), .socketPath = {}});
  EXPECT_FALSE(platform->mounts->makeDirectory("/private/tmp/quillsift-test", 0700));
  EXPECT_EQ(errno, ENOENT);
}

TEST(LinuxPlatformTest, MakesTheTemporaryDirectoryForTheDaemonAlone) {
  const ScratchTree scratch;
  scratch.link("private/tmp", scratch.at("run/tmp"));
  (void)makeLinuxPlatform({.treeDirectory = scratch.directory(), .socketPath = {}});
  EXPECT_FALSE(std::filesystem::exists(scratch.at("run/tmp")));
  (void)makeLinuxPlatform(
      {.treeDirectory = scratch.directory(), .socketPath = {}, .makesTemporaryDirectory = true});
  EXPECT_TRUE(std::filesystem::exists(scratch.at("run/tmp")));
}

TEST(LinuxPlatformTest, LooksForTheJournalInItsTree) {
  const ScratchTree scratch;
  for (const char* place : {"run/log/journal", "var/log/journal"})
    scratch.link(place, "/dev/null");
  const auto platform = makeLinuxPlatform({.treeDirectory = scratch.directory(), .socketPath = {}});
  const auto none = [](const char*) {};
  const auto member = [](int, const char*) { return 0; };
  EXPECT_EQ(platform->logArchiveBuilder->build({}, none, member), ENOSYS);
}

TEST(LinuxPlatformTest, AnswersForWhatThisMachineLacks) {
  const ScratchTree scratch;
  for (const char* path :
       {"dev/dri", "tmp/.X11-unix", "dev/vcsa", "dev/tty0", "sys/bus", "usr/bin/plymouth"})
    scratch.link(path, "/dev/null");
  const auto platform = makeLinuxPlatform(
      {.treeDirectory = scratch.directory(), .socketPath = scratch.at("no/such/place/socket")});
  std::vector<std::uint32_t> displays;
  EXPECT_EQ(platform->displays->activeDisplays(8, &displays), ENOSYS);
  EXPECT_FALSE(platform->displays->mirrorsAnother(0));
  EXPECT_EQ(platform->displays->capture(0), nullptr);
  EXPECT_EQ(platform->remoteDevices->uniqueDevice(1), nullptr);
  QSError approval, notification;
  EXPECT_FALSE(platform->recoveryAgent->enableAutomaticApproval(&approval));
  EXPECT_FALSE(platform->recoveryAgent->enableNotifications(&notification));
  EXPECT_EQ(approval.code, ENOSYS);
  EXPECT_EQ(notification.code, ENOSYS);
  EXPECT_FALSE(platform->recoveryAgent->enableNotifications(nullptr));
  EXPECT_FALSE(platform->installerProgress->isShowing());
  platform->installerProgress->hide("phase");
  platform->visualFlash->flash();
  int code = 0;
  EXPECT_EQ(platform->kernelMessages->checkIn("io.vantor.quillsiftd.kernel", &code), nullptr);
  EXPECT_EQ(code, ENOENT);
}

TEST(LinuxPlatformTest, SaysOnceThatATreeMustNotBeUsed) {
  const ScratchTree scratch;
  const std::string tree = scratch.makeDirectory("tree");
  ASSERT_EQ(::chmod(tree.c_str(), 0777), 0);
  const auto records = runWithPrivateDevices(true, [&tree] {
    const auto platform = makeLinuxPlatform({.treeDirectory = tree, .socketPath = {}});
    return !platform->fileSystem->exists("/no/such/file");
  });
  if (!records) GTEST_SKIP() << kNoNamespace;
  EXPECT_THAT(*records, ElementsAre(EndsWith("Ignoring the platform tree " + tree +
                                             ": others can write to it.")));
}

TEST(LinuxPlatformTest, SaysNothingWhereThereIsNoTree) {
  const auto records = runWithPrivateDevices(true, [] { return makeLinuxPlatform() != nullptr; });
  if (!records) GTEST_SKIP() << kNoNamespace;
  EXPECT_THAT(*records, IsEmpty());
}

}  // namespace
}  // namespace quillsift
