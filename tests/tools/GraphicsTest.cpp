#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/tools/ScratchMachine.h"

namespace quillsift::tools {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* kPixdiag = "/System/Library/Extensions/DrGraphicsFamily.kext/pixdiag";

TEST(GraphicsTest, SaysThatNoDeviceHasADriver) {
  ScratchMachine machine;
  machine.file("/sys/class/drm/version", "drm 1.1.0\n");
  machine.program("drm_info", "echo must not run");
  const RunResult result = machine.run(kPixdiag, {});
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_EQ(result.output, "no graphics device with a kernel driver\n");
}

TEST(GraphicsTest, ShowsEachConnectorAndWhatIsPluggedIn) {
  ScratchMachine machine;
  machine.file("/sys/class/drm/card1/dev", "226:1\n");
  machine.file("/sys/class/drm/card1-HDMI-A-1/status", "connected\n");
  machine.file("/sys/class/drm/card1-HDMI-A-1/modes", "1920x1080\n1280x800\n");
  machine.file("/sys/class/drm/card1-HDMI-A-1/edid", "x");
  machine.file("/sys/class/drm/card1-DP-1/status", "disconnected\n");
  machine.file("/sys/class/drm/card1-DP-1/edid", "");
  machine.file("/sys/kernel/debug/dri/1/state", "plane[31]: plane-0\n");
  machine.program("edid-decode", "echo decoded; echo 'Serial Number: 1'");
  const RunResult result = machine.run(kPixdiag, {});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("== card1-HDMI-A-1 ==\nstatus: connected\n"
                                       "mode: 1920x1080\nmode: 1280x800\ndecoded\n"));
  EXPECT_THAT(result.output, HasSubstr("== card1-DP-1 ==\nstatus: disconnected\n\n"));
  EXPECT_THAT(result.output, HasSubstr("== /sys/kernel/debug/dri/1 ==\nplane[31]: plane-0\n"));
  EXPECT_THAT(result.output, HasSubstr("not installed: drm_info\n"));
  EXPECT_THAT(result.output, Not(HasSubstr("lspci"))) << "a machine without PCI";
}

TEST(GraphicsTest, SaysThatStatesMayNotBeRead) {
  ScratchMachine machine;
  machine.file("/sys/class/drm/card0/dev", "226:0\n");
  machine.file("/sys/kernel/debug/dri/0/state", "x", 0400);
  machine.becomeOrdinaryUser();
  machine.program("drm_info", "echo card");
  const RunResult result = machine.run(kPixdiag, {});
  if (::geteuid() != 0) GTEST_SKIP() << "needs root: the file has to be somebody else's";
  EXPECT_EQ(result.exitCode, 77);
  EXPECT_THAT(result.output, HasSubstr("not permitted to this user: /sys/kernel/debug/dri\n"));
}

}  // namespace
}  // namespace quillsift::tools
