#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/linux/FirmwareVariables.h"
#include "tests/tools/ScratchMachine.h"
#include "tools/FirmwareVariables.h"

namespace quillsift::tools {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kNvram = "/usr/sbin/nvram";
constexpr const char* kStore = "/sys/firmware/efi/efivars/";
constexpr const char* kNobodysVendor = "8be4df61-93ca-11d2-aa0d-00e098032b8c";

class FirmwareVariablesListingTest : public testing::Test {
 protected:
  void variable(const std::string& name, const std::string& vendor, const std::string& value,
                mode_t mode = 0644) {
    machine_.file(kStore + name + "-" + vendor, "\x07\0\0\0"s + value, mode);
  }
  ScratchMachine machine_;
};

TEST_F(FirmwareVariablesListingTest, NamesOwnVariablesBareAndOthersWithTheirVendor) {
  variable("autosave", std::string(kOwnFirmwareVendor), "A%\n\xff");
  variable("Boot0000", kNobodysVendor, "x");
  const RunResult result = machine_.run(kNvram, {"-p"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output, std::string(kNobodysVendor) + ":Boot0000\tx\nautosave\tA%25%0a%ff\n");
}

TEST_F(FirmwareVariablesListingTest, KnowsTheVendorThatTheDaemonWritesUnder) {
  EXPECT_EQ(kOwnFirmwareVendor, kFirmwareVariableVendor);
}

TEST_F(FirmwareVariablesListingTest, GivesBytesAsDataInThePropertyList) {
  variable("Boot0000", kNobodysVendor, "abc");
  const RunResult result = machine_.run(kNvram, {"-x", "-p"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("<key>" + std::string(kNobodysVendor) + ":Boot0000</key>"));
  EXPECT_THAT(result.output, HasSubstr("<data>YWJj</data>"));
  EXPECT_TRUE(result.output.ends_with("</plist>\n"));
  EXPECT_THAT(result.output, Not(HasSubstr("DOCTYPE")));
}

TEST_F(FirmwareVariablesListingTest, ReadsABootLoadersEnvironmentWhereThereIsNoEFI) {
  machine_.program("fw_printenv", "echo bootcmd=run a=b; echo baudrate=115200");
  EXPECT_EQ(machine_.run(kNvram, {"-p"}).output, "bootcmd\trun a=b\nbaudrate\t115200\n");
  EXPECT_THAT(machine_.run(kNvram, {"-x", "-p"}).output,
              HasSubstr("<key>baudrate</key>\n\t<string>115200</string>"));
}

TEST_F(FirmwareVariablesListingTest, SaysThatThereIsNoStore) {
  for (const bool mountPointIsThere : {false, true}) {
    if (mountPointIsThere) machine_.directory("/sys/firmware/efi/efivars");
    machine_.program("fw_printenv", "echo 'Cannot parse config file' >&2; exit 1");
    const RunResult result = machine_.run(kNvram, {"-p"});
    EXPECT_EQ(result.exitCode, 69);
    EXPECT_EQ(result.output, "this machine has no firmware variable store\n");
  }
}

TEST_F(FirmwareVariablesListingTest, CountsWhatTheUserMayNotRead) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root: the file has to be somebody else's";
  variable("open", kNobodysVendor, "x");
  variable("closed", kNobodysVendor, "CANARY", 0600);
  machine_.becomeOrdinaryUser();
  const RunResult result = machine_.run(kNvram, {"-p"});
  EXPECT_EQ(result.exitCode, 77);
  EXPECT_EQ(result.output,
            std::string(kNobodysVendor) + ":open\tx\nnot permitted to this user: 1 variables\n");
  const RunResult list = machine_.run(kNvram, {"-x", "-p"});
  EXPECT_EQ(list.exitCode, 77);
  EXPECT_TRUE(list.output.ends_with("</plist>\n")) << "nothing may follow the list";
}

}  // namespace
}  // namespace quillsift::tools
