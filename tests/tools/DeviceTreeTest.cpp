#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tools/ScratchMachine.h"
#include "tools/DeviceTree.h"
#include "tools/FirmwareVariables.h"

namespace quillsift::tools {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kGUID = "8be4df61-93ca-11d2-aa0d-00e098032b8c";

RunResult shown(const ScratchMachine& machine) {
  return machine.run("/usr/sbin/drreg", {"-i", "-l", "-p", "DrDeviceTree", "-w", "0"});
}

TEST(DeviceTreeValueTest, GoesByItsLooks) {
  EXPECT_EQ(deviceTreeValue("okay\0"s), "\"okay\"");
  EXPECT_EQ(deviceTreeValue("a\"b\0c\\\0"s), "\"a\\\"b\", \"c\\\\\"");
  EXPECT_EQ(deviceTreeValue("\0\0\0\x1\xFF\0\0\x2"s), "<0x1 0xff000002>");
  EXPECT_EQ(deviceTreeValue("\0\0\0\0"s), "<0x0>");
  EXPECT_EQ(deviceTreeValue("\x0A\xFF\x01"s), "[0a ff 01]");
}

TEST(DeviceTreeTest, PrintsNodesAndProperties) {
  ScratchMachine machine;
  const std::string base = "/sys/firmware/devicetree/base";
  machine.file(base + "/model", "Lumina\0"s);
  machine.file(base + "/name", "\0"s);
  machine.file(base + "/cpus/cpu@0/reg", "\0\0\0\0"s);
  machine.file(base + "/cpus/ranges", "");
  machine.file(base + "/chosen/bootargs", "ro token=CANARY\0"s);
  machine.file(base + "/chosen/rng-seed", "CANARY");
  const RunResult result = shown(machine);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output,
            "/ {\n"
            "    model = \"Lumina\";\n"
            "    chosen {\n"
            "        bootargs = \"ro token=(masked)\";\n"
            "    };\n"
            "    cpus {\n"
            "        ranges;\n"
            "        cpu@0 {\n"
            "            reg = <0x0>;\n"
            "        };\n"
            "    };\n"
            "};\n");
}

TEST(DeviceTreeTest, ShowsTheMachinesTablesOtherwiseAndTheVariablesAsOptions) {
  ScratchMachine machine;
  machine.file("/sys/devices/virtual/dmi/id/product_name", "Lumina14-2\n");
  machine.file("/sys/devices/virtual/dmi/id/uevent", "MODALIAS=dmi:x\n");
  machine.link("/sys/class/dmi/id", "../../devices/virtual/dmi/id");
  machine.file("/sys/firmware/efi/efivars/Lang-"s + kGUID, "\x07\0\0\0en\x01%"s);
  const RunResult result = shown(machine);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("product_name = Lumina14-2\n"));
  EXPECT_THAT(result.output, HasSubstr("options {\n    "s + kGUID + ":Lang = en%01%25\n};\n"));
}

TEST(DeviceTreeTest, SaysWhenThereIsNone) {
  ScratchMachine machine;
  const RunResult result = shown(machine);
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_EQ(result.output,
            "no /sys/firmware/devicetree/base and no /sys/class/dmi/id on this machine\n");
}

TEST(FirmwareVariablesTest, StripsTheAttributesAndSkipsWhatIsNoVariable) {
  ScratchMachine machine;
  const std::string store = "/sys/firmware/efi/efivars/";
  machine.file(store + "a-b-" + kGUID, "\x07\0\0\0value"s);
  machine.file(store + "short-" + kGUID, "\x07\0"s);
  machine.file(store + "readme", "xxxxxxxx");
  const auto variables = firmwareVariables(machine.host());
  ASSERT_TRUE(variables);
  ASSERT_EQ(variables->size(), 1U);
  EXPECT_EQ(variables->front().name, "a-b");
  EXPECT_EQ(variables->front().vendor, kGUID);
  EXPECT_EQ(variables->front().value, "value");
}

TEST(FirmwareVariablesTest, AreNoneWithoutAStore) {
  ScratchMachine machine;
  EXPECT_FALSE(firmwareVariables(machine.host()));
}

}  // namespace
}  // namespace quillsift::tools
