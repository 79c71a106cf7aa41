#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/tools/ScratchMachine.h"
#include "tools/DeviceWriters.h"

namespace quillsift::tools {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kDrreg = "/usr/sbin/drreg";

RunResult shown(const ScratchMachine& machine, const std::string& plane) {
  return machine.run(kDrreg, {"-i", "-l", "-p", plane, "-w", "0"});
}

TEST(DevicePlanesTest, ShowAllDevicesAsATree) {
  ScratchMachine machine;
  machine.file("/sys/devices/pci0/uevent", "A=1\nB=2\n");
  machine.file("/sys/devices/pci0/net/eth0/uevent", "");
  machine.file("/sys/devices/pci0/net/eth0/edid", "\0\x01\xFF"s);
  machine.link("/sys/devices/pci0/subsystem", "../../bus/pci");
  machine.link("/sys/devices/pci0/driver", "../../bus/pci/drivers/host");
  const RunResult result = shown(machine, "DrService");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output,
            "/sys/devices\n"
            "  pci0  [pci]  driver host\n"
            "      uevent:\n"
            "        | A=1\n"
            "        | B=2\n"
            "    net/eth0\n"
            "        edid = hex 0001ff\n"
            "        uevent = \n");
}

TEST(DevicePlanesTest, SayWhatTheMachineHasNot) {
  ScratchMachine machine;
  const std::pair<const char*, const char*> lines[] = {
      {"DrService", "no /sys/devices on this machine\n"},
      {"DrACPIPlane", "no /sys/devices/LNXSYSTM:00 and no /sys/firmware/acpi on this machine\n"},
      {"DrUSB", "no /sys/bus/usb/devices on this machine\n"},
      {"DrFlarebus",
       "no /sys/bus/thunderbolt/devices and no /sys/bus/firewire/devices on this machine\n"},
  };
  for (const auto& [plane, line] : lines) {
    const RunResult result = shown(machine, plane);
    EXPECT_EQ(result.exitCode, 69);
    EXPECT_EQ(result.output, line);
  }
  for (const char* plane : {"DrPower", "DrPort"}) {
    const RunResult result = shown(machine, plane);
    EXPECT_EQ(result.exitCode, 69);
    EXPECT_THAT(result.output, testing::EndsWith(" on this machine\n"));
  }
}

TEST(DevicePlanesTest, WalkTheTopMembersOfABusOnly) {
  ScratchMachine machine;
  machine.file("/sys/devices/pci0/usb1/uevent", "");
  machine.file("/sys/devices/pci0/usb1/1-1/uevent", "");
  machine.file("/sys/devices/pci0/usb1/1-1/product", "Stick\n");
  machine.link("/sys/bus/usb/devices/usb1", "../../../devices/pci0/usb1");
  machine.link("/sys/bus/usb/devices/1-1", "../../../devices/pci0/usb1/1-1");
  const RunResult result = shown(machine, "DrUSB");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output,
            "== /sys/bus/usb/devices ==\n"
            "usb1\n"
            "    uevent = \n"
            "  1-1\n"
            "      product = Stick\n"
            "      uevent = \n");
}

TEST(DevicePlanesTest, ShowEmptyClassesAsSuch) {
  ScratchMachine machine;
  machine.directory("/sys/class/power_supply");
  machine.file("/sys/power/state", "freeze mem\n");
  machine.file("/sys/power/wakeup_count", "CANARY");
  const RunResult result = shown(machine, "DrPower");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output,
            "/sys/power\n    state = freeze mem\n== /sys/class/power_supply ==\n(empty)\n"
            "no /sys/class/thermal on this machine\nno /sys/class/wakeup on this machine\n");
}

TEST(DevicePlanesTest, NameTheFirmwaresTablesWithoutReadingThem) {
  ScratchMachine machine;
  machine.file("/sys/firmware/acpi/tables/DSDT", "CANARY");
  const RunResult result = shown(machine, "DrACPIPlane");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(
      result.output,
      "/sys/firmware/acpi/tables/DSDT  6 bytes\nno /sys/devices/LNXSYSTM:00 on this machine\n");
}

TEST(DevicePlanesTest, CountWhatTheUserMayNotRead) {
  ScratchMachine machine;
  machine.file("/sys/devices/serial", "CANARY", 0400);
  machine.file("/sys/devices/model", "x\n");
  machine.becomeOrdinaryUser();
  if (::geteuid() != 0) GTEST_SKIP() << "needs root: the file has to be somebody else's";
  const RunResult result = shown(machine, "DrService");
  EXPECT_EQ(result.exitCode, 77);
  EXPECT_EQ(result.output,
            "/sys/devices\n    model = x\n\nnot permitted to this user: 1 attributes\n");
}

TEST(DevicePlanesTest, KnowNoOthers) {
  ScratchMachine machine;
  const RunResult result = shown(machine, "DrOther");
  EXPECT_EQ(result.exitCode, 64);
  EXPECT_EQ(result.output, "drreg: unknown arguments: -i -l -p DrOther -w 0\n");
}

TEST(DevicePropertyListTest, HoldsAllDevices) {
  ScratchMachine machine;
  machine.file("/sys/devices/pci0/uevent", "A=1\n");
  machine.file("/sys/devices/pci0/edid", "\0\x01"s);
  machine.file("/sys/devices/pci0/dev0/uevent", "");
  machine.file("/sys/devices/pci0/dev1/uevent", "");
  const RunResult result = machine.run(kDrreg, {"-a", "-l", "-w0", "-x", "0"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<plist version=\"1.0\">\n"
            "<dict>\n"
            "\t<key>name</key>\n"
            "\t<string>/sys/devices</string>\n"
            "\t<key>children</key>\n"
            "\t<array>\n"
            "\t\t<dict>\n"
            "\t\t\t<key>name</key>\n"
            "\t\t\t<string>pci0</string>\n"
            "\t\t\t<key>attributes</key>\n"
            "\t\t\t<dict>\n"
            "\t\t\t\t<key>edid</key>\n"
            "\t\t\t\t<data>AAE=</data>\n"
            "\t\t\t\t<key>uevent</key>\n"
            "\t\t\t\t<string>A=1</string>\n"
            "\t\t\t</dict>\n"
            "\t\t\t<key>children</key>\n"
            "\t\t\t<array>\n"
            "\t\t\t\t<dict>\n"
            "\t\t\t\t\t<key>name</key>\n"
            "\t\t\t\t\t<string>dev0</string>\n"
            "\t\t\t\t\t<key>attributes</key>\n"
            "\t\t\t\t\t<dict>\n"
            "\t\t\t\t\t\t<key>uevent</key>\n"
            "\t\t\t\t\t\t<string></string>\n"
            "\t\t\t\t\t</dict>\n"
            "\t\t\t\t</dict>\n"
            "\t\t\t\t<dict>\n"
            "\t\t\t\t\t<key>name</key>\n"
            "\t\t\t\t\t<string>dev1</string>\n"
            "\t\t\t\t\t<key>attributes</key>\n"
            "\t\t\t\t\t<dict>\n"
            "\t\t\t\t\t\t<key>uevent</key>\n"
            "\t\t\t\t\t\t<string></string>\n"
            "\t\t\t\t\t</dict>\n"
            "\t\t\t\t</dict>\n"
            "\t\t\t</array>\n"
            "\t\t</dict>\n"
            "\t</array>\n"
            "</dict>\n"
            "</plist>\n");
}

TEST(DevicePropertyListTest, SaysWhenThereAreNoDevices) {
  ScratchMachine machine;
  const RunResult result = machine.run(kDrreg, {"-a", "-l", "-w0", "-x", "0"});
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_EQ(result.output, "no /sys/devices on this machine\n");
}

TEST(PrintableLinesTest, AreTextOrDigits) {
  EXPECT_THAT(printableLines("a\nb"), ElementsAre("a", "b"));
  EXPECT_THAT(printableLines("\x1B[1m"), ElementsAre("hex 1b5b316d"));
  EXPECT_TRUE(printableLines("").empty());
}

}  // namespace
}  // namespace quillsift::tools
