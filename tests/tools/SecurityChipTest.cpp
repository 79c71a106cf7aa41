#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tools/ScratchMachine.h"

namespace quillsift::tools {
namespace {

using testing::HasSubstr;

constexpr const char* kSealwarden = "/usr/bin/sealwarden";

TEST(SecurityChipTest, SaysThatThereIsNone) {
  ScratchMachine machine;
  machine.program("tpm2_getcap", "echo must not run: it would search the network for one");
  const RunResult result = machine.run(kSealwarden, {"-e"});
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_EQ(result.output, "no TPM on this machine\n");
}

TEST(SecurityChipTest, ShowsPropertiesAndRegisters) {
  ScratchMachine machine;
  machine.file("/dev/tpmrm0", "");
  machine.file("/sys/class/tpm/tpm0/tpm_version_major", "2\n");
  machine.program("tpm2_getcap", "echo getcap: \"$@\"");
  machine.program("tpm2_pcrread", "echo registers");
  const RunResult result = machine.run(kSealwarden, {"-e"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("TPM, version 2\n"));
  EXPECT_THAT(result.output, HasSubstr("getcap: properties-fixed\n"));
  EXPECT_THAT(result.output, HasSubstr("getcap: properties-variable\n"));
  EXPECT_THAT(result.output, HasSubstr("== tpm2_pcrread ==\nregisters\n"));
}

TEST(SecurityChipTest, NamesTheMissingTools) {
  ScratchMachine machine;
  machine.file("/dev/tpm0", "");
  const RunResult result = machine.run(kSealwarden, {"-e"});
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_EQ(result.output, "not installed: tpm2_getcap, tpm2_pcrread\n");
}

}  // namespace
}  // namespace quillsift::tools
