#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "platform/linux/FirmwareVariables.h"
#include "platform/linux/LinuxProcessLauncher.h"
#include "tests/doubles/FakeProcessLauncher.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

constexpr const char* kStore = "sys/firmware/efi/efivars";

class FirmwareVariablesTest : public testing::Test {
 protected:
  std::unique_ptr<RegistryObject> variables() {
    return firmwareVariables(*scratch_.tree(), launcher_, std::chrono::minutes(1));
  }

  const ScratchTree scratch_;
  LinuxProcessLauncher launcher_{
      [this](const std::string& path) { return scratch_.tree()->resolve(path).value_or(""); }};
};

class EFIVariablesTest : public FirmwareVariablesTest {
 protected:
  static std::string store(const std::string& file) { return std::string(kStore) + "/" + file; }

  void setVariable(const std::string& name, const std::string& value) const {
    const std::string attributes("\x07\0\0\0", 4);
    scratch_.write(store(name + "-" + kFirmwareVariableVendor), attributes + value);
  }

  std::string variable(const std::string& name) {
    const auto all = variables();
    if (!all) return "(no store)";
    const auto value = all->property(name);
    if (!value) return "(none)";
    const auto* bytes = std::get_if<QSData>(&*value);
    return bytes == nullptr ? "(not bytes)" : std::string(bytes->text());
  }
};

TEST_F(EFIVariablesTest, GivesAVariablesBytesWithoutItsAttributes) {
  setVariable("QS_AUTO_SAVE_VOL_UUID", "CA18-AA35");
  EXPECT_EQ(variable("QS_AUTO_SAVE_VOL_UUID"), "CA18-AA35");
  setVariable("binary", std::string("\0\xFF\n", 3));
  EXPECT_EQ(variable("binary"), std::string("\0\xFF\n", 3));
}

TEST_F(EFIVariablesTest, GivesEmptyBytesForAnEmptyVariable) {
  setVariable("empty", "");
  EXPECT_EQ(variable("empty"), "");
}

TEST_F(EFIVariablesTest, HasNoVariableWhoseFileIsTooShortForItsAttributes) {
  scratch_.write(store(std::string("short-") + kFirmwareVariableVendor), "\x07\x01\x01");
  EXPECT_EQ(variable("short"), "(none)");
}

TEST_F(EFIVariablesTest, HasOnlyVariablesOfOurVendor) {
  scratch_.write(store("Boot0000-8be4df61-93ca-11d2-aa0d-00e098032b8c"), "\x07\x01\x01\x01value");
  EXPECT_EQ(variable("Boot0000"), "(none)");
}

TEST_F(EFIVariablesTest, NeverLeavesTheStore) {
  setVariable("x", "x");
  const std::string ending = std::string("-") + kFirmwareVariableVendor;
  scratch_.write("sys/firmware/efi/outside" + ending, "\x07\x01\x01\x01value");
  scratch_.write(store(ending), "\x07\x01\x01\x01value");
  EXPECT_EQ(variable("../outside"), "(none)");
  EXPECT_EQ(variable(""), "(none)");
  EXPECT_EQ(variable(std::string("x-") + kFirmwareVariableVendor + std::string(1, '\0')), "(none)");
}

TEST_F(EFIVariablesTest, HasNoVariableThatIsADirectory) {
  scratch_.makeDirectory(store(std::string("odd-") + kFirmwareVariableVendor));
  EXPECT_EQ(variable("odd"), "(none)");
}

TEST_F(EFIVariablesTest, HasNoStoreOnAMachineWithoutOne) {
  scratch_.link("usr/bin/fw_printenv", "/dev/null");
  scratch_.link(kStore, "/dev/null");
  EXPECT_EQ(variable("x"), "(no store)");
  std::filesystem::remove(scratch_.at(kStore));
  scratch_.write(kStore, "no directory");
  EXPECT_EQ(variable("x"), "(no store)");
}

class UBootEnvironmentTest : public FirmwareVariablesTest {
 protected:
  UBootEnvironmentTest() { scratch_.link(kStore, "/dev/null"); }

  // A reader that is a shell script.
  void setReader(const std::string& script) {
    scratch_.write("etc/fw_env.config", "/dev/mmcblk0 0x3f8000 0x8000\n");
    const std::string reader = scratch_.write("usr/bin/fw_printenv", "#!/bin/sh\n" + script);
    std::filesystem::permissions(reader, std::filesystem::perms::owner_all);
  }

  std::string variable(const std::string& name) {
    const auto all = variables();
    if (!all) return "(no environment)";
    const auto value = all->property(name);
    if (!value) return "(none)";
    const auto* text = std::get_if<std::string>(&*value);
    return text == nullptr ? "(not text)" : *text;
  }
};

TEST_F(UBootEnvironmentTest, GivesAVariableAsText) {
  setReader("echo \"$1=value of $1 = 1\"\n");
  EXPECT_EQ(variable("QS_AUTO_SAVE_VOL_UUID"), "value of QS_AUTO_SAVE_VOL_UUID = 1");
}

TEST_F(UBootEnvironmentTest, TakesNoComplaintForTheValue) {
  setReader("echo 'Warning: Bad CRC, using default environment' >&2\necho \"$1=\"\n");
  EXPECT_EQ(variable("x"), "");
}

TEST_F(UBootEnvironmentTest, HasNoVariableThatTheReaderDoesNotKnow) {
  setReader("echo \"## Error: \\\"$1\\\" not defined\" >&2\nexit 1\n");
  EXPECT_EQ(variable("x"), "(none)");
  setReader("echo xy=1\n");
  EXPECT_EQ(variable("x"), "(none)");
  setReader("echo x=1\nexit 1\n");
  EXPECT_EQ(variable("x"), "(none)");
  setReader("");
  EXPECT_EQ(variable("x"), "(none)");
}

TEST_F(UBootEnvironmentTest, AsksOnlyForNames) {
  setReader("echo \"$1=asked\"\n");
  EXPECT_EQ(variable("install-product-url"), "asked");
  for (const char* name : {"", "-c", "--help", "a b", "a/b", "a=b", "a\nb"})
    EXPECT_EQ(variable(name), "(none)") << name;
}

TEST_F(UBootEnvironmentTest, IsAbsentWhereNothingSaysWhereItIs) {
  setReader("echo \"$1=asked\"\n");
  std::filesystem::remove(scratch_.at("etc/fw_env.config"));
  scratch_.link("etc/fw_env.config", "/dev/null");
  EXPECT_EQ(variable("x"), "(no environment)");
}

TEST_F(UBootEnvironmentTest, CountsOnlyWithoutAnEFIStore) {
  setReader("echo \"$1=asked\"\n");
  std::filesystem::remove(scratch_.at(kStore));
  scratch_.makeDirectory(kStore);
  EXPECT_EQ(variable("x"), "(none)");
}

TEST_F(UBootEnvironmentTest, GivesUpAReaderThatHangsAndEndsIt) {
  setReader("");
  for (const bool leavesOutputOpen : {false, true}) {
    FakeProcessLauncher launcher;
    launcher.script(
        "/usr/bin/fw_printenv",
        {.output = "x=1\n", .hangs = !leavesOutputOpen, .leavesOutputOpen = leavesOutputOpen});
    const auto all = firmwareVariables(*scratch_.tree(), launcher, std::chrono::milliseconds(1));
    ASSERT_TRUE(all);
    EXPECT_FALSE(all->property("x"));
    const auto reader = launcher.child("/usr/bin/fw_printenv");
    EXPECT_EQ(reader->killCalls(), 1U);
    launcher.releaseAll();
    while (!reader->wasReleased())
      std::this_thread::yield();
  }
}

TEST_F(UBootEnvironmentTest, HasNothingWhenTheReaderCannotRun) {
  setReader("");
  scratch_.write("usr/bin/fw_printenv", "#!/no/such/interpreter\n");
  EXPECT_EQ(variable("x"), "(none)");
}

}  // namespace
}  // namespace quillsift
