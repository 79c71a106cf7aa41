#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tests/tools/ScratchMachine.h"
#include "tools/DeviceWalk.h"

namespace quillsift::tools {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Writes down what it sees: "(name subsystem driver attribute=value ...", and ")" at the end.
class Recorder : public DeviceVisitor {
 public:
  void beginDevice(const Device& device) override {
    std::string text = "(" + device.name;
    if (!device.subsystem.empty()) text += " [" + device.subsystem + "]";
    if (!device.driver.empty()) text += " {" + device.driver + "}";
    for (const DeviceAttribute& attribute : device.attributes) {
      text += " " + attribute.name + "=" + attribute.value;
    }
    seen.push_back(text);
  }
  void endDevice() override { seen.push_back(")"); }

  std::vector<std::string> seen;
};

class DeviceWalkTest : public testing::Test {
 protected:
  void walk(std::chrono::milliseconds time = std::chrono::seconds(30)) {
    const TimeLimit limit(time);
    DeviceWalk walk(limit, recorder_);
    EXPECT_TRUE(walk.walk(machine_.root() + "/d", "d"));
    stoppedEarly_ = walk.stoppedEarly();
  }
  ScratchMachine machine_;
  Recorder recorder_;
  bool stoppedEarly_ = false;
};

TEST_F(DeviceWalkTest, NestsDevicesAndGivesGroupsToTheDeviceAbove) {
  machine_.file("/d/pci0/uevent", "");
  machine_.file("/d/pci0/power/control", "auto\n");
  machine_.file("/d/pci0/net/eth0/uevent", "INTERFACE=eth0\n");
  machine_.file("/d/pci0/net/eth0/statistics/rx", "12\n");
  machine_.link("/d/pci0/net/eth0/device", "../../../pci0");
  machine_.link("/d/pci0/subsystem", "../../bus/pci");
  machine_.link("/d/pci0/driver", "../../bus/pci/drivers/virtio");
  walk();
  EXPECT_THAT(recorder_.seen,
              ElementsAre("(d", "(pci0 [pci] {virtio} power/control=auto uevent=",
                          "(net/eth0 statistics/rx=12 uevent=INTERFACE=eth0", ")", ")", ")"));
}

TEST_F(DeviceWalkTest, FollowsNoLink) {
  machine_.file("/elsewhere/uevent", "");
  machine_.file("/elsewhere/secret", "CANARY");
  machine_.directory("/d");
  machine_.link("/d/below", "../elsewhere");
  machine_.link("/d/file", "../elsewhere/secret");
  walk();
  EXPECT_THAT(recorder_.seen, ElementsAre("(d", ")"));
}

TEST_F(DeviceWalkTest, ReadsAPageAtMost) {
  machine_.file("/d/long", std::string(10000, 'x'));
  walk();
  EXPECT_EQ(recorder_.seen[0], "(d long=" + std::string(DeviceWalk::kLongestValue, 'x'));
}

TEST_F(DeviceWalkTest, ReadsNothingThatNobodyMayRead) {
  machine_.file("/d/store", "CANARY", 0200);
  walk();
  EXPECT_THAT(recorder_.seen, ElementsAre("(d", ")"));
}

TEST_F(DeviceWalkTest, NeverWaitsForAFIFO) {
  machine_.directory("/d");
  ASSERT_EQ(::mkfifo((machine_.root() + "/d/fifo").c_str(), 0600), 0);
  walk();
  EXPECT_THAT(recorder_.seen, ElementsAre("(d", ")"));
}

TEST_F(DeviceWalkTest, StopsWhenTheTimeIsUpAndStillEndsWhatItBegan) {
  machine_.file("/d/a/uevent", "");
  machine_.file("/d/b/uevent", "");
  walk(std::chrono::milliseconds(0));
  EXPECT_TRUE(stoppedEarly_);
  EXPECT_THAT(recorder_.seen, ElementsAre("(d", ")"));
}

TEST(TimeLimitTest, InterruptsAReadThatWaits) {
  int pipe[2];
  ASSERT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
  const TimeLimit limit{std::chrono::milliseconds(50)};
  char byte = 0;
  EXPECT_EQ(::read(pipe[0], &byte, 1), -1);
  EXPECT_EQ(errno, EINTR);
  EXPECT_TRUE(limit.passed());
  ::close(pipe[0]);
  ::close(pipe[1]);
}

TEST(DeviceWalkOfNothingTest, Fails) {
  Recorder recorder;
  const TimeLimit limit{std::chrono::seconds(30)};
  DeviceWalk walk(limit, recorder);
  EXPECT_FALSE(walk.walk("/nowhere/at/all", "x"));
  EXPECT_THAT(recorder.seen, IsEmpty());
}

// Each of these does something to the hardware, the log or the firmware when it is read, or is a
// secret. A walk over a directory of them must open none.
TEST_F(DeviceWalkTest, ReadsNothingThatActsWhenReadOrIsSecret) {
  for (const char* name : {"remove",
                           "rescan",
                           "reset",
                           "rom",
                           "config",
                           "vpd",
                           "resource",
                           "resource0",
                           "resource4_wc",
                           "ppi/request",
                           "tpm/ppi/version",
                           "power/level",
                           "stable_pages_required",
                           "capability",
                           "eeprom",
                           "nvmem",
                           "key",
                           "psk",
                           "dhchap_secret",
                           "dhchap_ctrl_secret",
                           "password_in",
                           "wakeup_count"}) {
    machine_.file(std::string("/d/") + name, "CANARY");
  }
  machine_.file("/d/power/control", "auto\n");
  machine_.file("/d/sub/level", "3\n");
  walk();
  EXPECT_THAT(recorder_.seen, ElementsAre("(d power/control=auto sub/level=3", ")"));
}

TEST(SafeToReadTest, TellsADevicesCounterFromTheSystemsOne) {
  EXPECT_TRUE(isSafeToRead("wakeup_count", /*ofDevice=*/true));
  EXPECT_TRUE(isSafeToRead("power/wakeup_count", /*ofDevice=*/true));
  EXPECT_FALSE(isSafeToRead("wakeup_count", /*ofDevice=*/false));
}

}  // namespace
}  // namespace quillsift::tools
