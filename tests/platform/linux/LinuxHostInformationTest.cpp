#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "platform/linux/FileReading.h"
#include "platform/linux/LinuxHostInformation.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

class LinuxHostInformationTest : public testing::Test {
 protected:
  LinuxHostInformationTest() {
    // No test may see the machine's own.
    for (const char* path :
         {"sys/class/dmi/id/product_name", "sys/firmware/devicetree", "sys/firmware/log",
          "sys/firmware/efi/ovmf_debug_log", "sys/firmware/opal/msglog"}) {
      scratch_.link(path, "/dev/null");
    }
  }

  LinuxHostInformation host() const { return LinuxHostInformation(scratch_.tree()); }

  // "hw.model" as the archive's name asks for it.
  std::string model() const {
    std::array<char, 32> value{"Lumina"};
    std::size_t length = value.size();
    errno = 0;
    const int result = host().systemControl("hw.model", value.data(), &length, nullptr, 0);
    const int code = errno;
    if (result == 0) return value.data();
    EXPECT_STREQ(value.data(), "Lumina") << "touched by a failing call";
    return "errno " + std::to_string(code);
  }

  int control(const char* name) const {
    std::size_t length = 0;
    errno = 0;
    const int result = host().systemControl(name, nullptr, &length, nullptr, 0);
    return result == 0 ? 0 : errno;
  }

  std::optional<std::string> build() const {
    const auto version = host().systemVersion();
    if (!version) return "no record";
    const auto entry = version->find(kBuildVersionKey);
    return entry == version->end() ? std::nullopt : std::optional(entry->second);
  }

  const ScratchTree scratch_;
};

TEST_F(LinuxHostInformationTest, ReadsAControlFromTheKernel) {
  std::array<char, 256> value{};
  std::size_t length = value.size();
  ASSERT_EQ(host().systemControl("kernel.osrelease", value.data(), &length, nullptr, 0), 0);
  utsname names{};
  ASSERT_EQ(::uname(&names), 0);
  EXPECT_EQ(std::string(value.data(), length), std::string(names.release) + "\n");
}

TEST_F(LinuxHostInformationTest, ReadsAControlOfTheTreeByteForByte) {
  const std::string bytes("POSL\0\n\xFF\n", 8);
  scratch_.write("proc/sys/kern/preoslog", bytes);
  std::size_t length = 0;
  ASSERT_EQ(host().systemControl("kern.preoslog", nullptr, &length, nullptr, 0), 0);
  ASSERT_EQ(length, bytes.size());
  std::string value(length, 'x');
  ASSERT_EQ(host().systemControl("kern.preoslog", value.data(), &length, nullptr, 0), 0);
  EXPECT_EQ(value, bytes);
}

TEST_F(LinuxHostInformationTest, KnowsNoPreOSLogWhereTheFirmwareKeepsNone) {
  EXPECT_EQ(control("kern.preoslog"), ENOENT);
}

TEST_F(LinuxHostInformationTest, OffersTheFirmwaresLogAsThePreOSLog) {
  std::filesystem::remove(scratch_.at("sys/firmware/log"));
  scratch_.write("sys/firmware/log", "hello");
  std::size_t length = 0;
  const char zero = 0;
  ASSERT_EQ(host().systemControl("kern.preoslog", nullptr, &length, &zero, 1), 0);
  EXPECT_EQ(length, 14u + 5);
  std::string value(length, 'x');
  ASSERT_EQ(host().systemControl("kern.preoslog", value.data(), &length, nullptr, 0), 0);
  EXPECT_EQ(value, std::string("POSL\x13\0\0\0\x04\0\0\0\0\0hello", 19));
  length = 18;
  EXPECT_EQ(host().systemControl("kern.preoslog", value.data(), &length, nullptr, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
}

TEST_F(LinuxHostInformationTest, PrefersThePreOSLogOfTheTree) {
  std::filesystem::remove(scratch_.at("sys/firmware/log"));
  scratch_.write("sys/firmware/log", "hello");
  scratch_.write("proc/sys/kern/preoslog", "own");
  std::size_t length = 0;
  ASSERT_EQ(host().systemControl("kern.preoslog", nullptr, &length, nullptr, 0), 0);
  EXPECT_EQ(length, 3u);
}

TEST_F(LinuxHostInformationTest, TellsWhyThePreOSLogOfTheTreeCannotBeRead) {
  std::filesystem::remove(scratch_.at("sys/firmware/log"));
  scratch_.write("sys/firmware/log", "hello");
  scratch_.makeDirectory("proc/sys/kern/preoslog");
  EXPECT_EQ(control("kern.preoslog"), EISDIR);
}

TEST_F(LinuxHostInformationTest, TakesTheNewValueThatAsksForTheSizeOfThePreOSLog) {
  const std::string path = scratch_.write("proc/sys/kern/preoslog", "POSL");
  const char zero = 0;
  std::size_t length = 0;
  EXPECT_EQ(host().systemControl("kern.preoslog", nullptr, &length, &zero, 1), 0);
  EXPECT_EQ(length, 4u);
  EXPECT_EQ(readSmallFile(path)->text(), "POSL");
}

TEST_F(LinuxHostInformationTest, SetsNothingElse) {
  const std::string path = scratch_.write("proc/sys/a/b", "old");
  std::size_t length = 0;
  EXPECT_EQ(host().systemControl("a.b", nullptr, &length, "new", 3), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(readSmallFile(path)->text(), "old");
}

TEST_F(LinuxHostInformationTest, FailsForASmallBufferAndLeavesItAlone) {
  scratch_.write("proc/sys/a/b", "12345");
  std::string value = "....";
  std::size_t length = value.size();
  EXPECT_EQ(host().systemControl("a.b", value.data(), &length, nullptr, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(value, "....");
  value = ".....";
  length = value.size();
  EXPECT_EQ(host().systemControl("a.b", value.data(), &length, nullptr, 0), 0);
  EXPECT_EQ(value, "12345");
}

TEST_F(LinuxHostInformationTest, TakesANullLengthOnlyWithoutABuffer) {
  scratch_.write("proc/sys/a/b", "12345");
  char value = 0;
  EXPECT_EQ(host().systemControl("a.b", &value, nullptr, nullptr, 0), -1);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(host().systemControl("a.b", nullptr, nullptr, nullptr, 0), 0);
}

TEST_F(LinuxHostInformationTest, DoesNotKnowWhatIsNoName) {
  scratch_.write("proc/sys/a/b", "x");
  EXPECT_EQ(control("a.b"), 0);
  for (const char* name :
       {"", ".", "..", "a..b", ".a.b", "a.b.", "a/b", "../../etc/passwd", "a.c", "a.b.c"}) {
    EXPECT_NE(control(name), 0) << name;
  }
  EXPECT_EQ(control("a..b"), ENOENT);
  EXPECT_EQ(control("a.c"), ENOENT);
}

TEST_F(LinuxHostInformationTest, DoesNotKnowAControlThatTheTreeHides) {
  scratch_.link("proc/sys/kernel/osrelease", "/dev/null");
  EXPECT_EQ(control("kernel.osrelease"), ENOENT);
}

TEST_F(LinuxHostInformationTest, HasNoModelWithoutAnySource) {
  EXPECT_EQ(model(), "errno " + std::to_string(ENOENT));
}

TEST_F(LinuxHostInformationTest, TakesTheModelOfTheTreeFirst) {
  scratch_.write("proc/sys/hw/model", "Lumina14,2\n");
  std::filesystem::remove(scratch_.at("sys/class/dmi/id/product_name"));
  scratch_.write("sys/class/dmi/id/product_name", "Other\n");
  EXPECT_EQ(model(), "Lumina14,2");
}

TEST_F(LinuxHostInformationTest, TakesTheFirmwaresProductNameElse) {
  scratch_.write("proc/sys/hw/model", " \n");
  std::filesystem::remove(scratch_.at("sys/class/dmi/id/product_name"));
  scratch_.write("sys/class/dmi/id/product_name", "Board 9/a\n");
  EXPECT_EQ(model(), "Board-9-a");
}

TEST_F(LinuxHostInformationTest, TakesTheDeviceTreesModelLast) {
  std::filesystem::remove(scratch_.at("sys/firmware/devicetree"));
  scratch_.write("sys/firmware/devicetree/base/model", std::string("Some Board\0", 11));
  EXPECT_EQ(model(), "Some-Board");
}

TEST_F(LinuxHostInformationTest, MakesTheModelFitForAFileName) {
  scratch_.write("proc/sys/hw/model",
                 "  a/b c\td\x01"
                 "e\xC3\xA9~,_\n");
  EXPECT_EQ(model(), "a-b-c-d-e--~,_");
}

TEST_F(LinuxHostInformationTest, FailsForAModelThatDoesNotFitWithItsTerminator) {
  scratch_.write("proc/sys/hw/model", std::string(31, 'm') + "\n");
  EXPECT_EQ(model(), std::string(31, 'm'));
  scratch_.write("proc/sys/hw/model", std::string(32, 'm') + "\n");
  EXPECT_EQ(model(), "errno " + std::to_string(ENOMEM));
}

TEST_F(LinuxHostInformationTest, TakesTheBuildFromOSRelease) {
  scratch_.write("etc/os-release", "NAME=x\nBUILD_ID=\"25A123\"\nIMAGE_VERSION=7\n");
  EXPECT_EQ(build(), "25A123");
  scratch_.write("etc/os-release", "IMAGE_VERSION=7\n");
  EXPECT_EQ(build(), "7");
  scratch_.write("etc/os-release", "BUILD_ID=\nIMAGE_VERSION=7\n");
  EXPECT_EQ(build(), "7");
  scratch_.write("etc/os-release", "BUILD_ID=../a b\n");
  EXPECT_EQ(build(), "..-a-b");
}

TEST_F(LinuxHostInformationTest, HasARecordWithoutABuildWhereNoneIsNamed) {
  scratch_.write("etc/os-release", "NAME=x\n");
  EXPECT_EQ(build(), std::nullopt);
}

TEST_F(LinuxHostInformationTest, HasNoRecordWithoutOSRelease) {
  scratch_.link("etc/os-release", "/dev/null");
  EXPECT_EQ(build(), "no record");
}

TEST_F(LinuxHostInformationTest, KnowsTheMachinesFactoryData) {
  std::filesystem::remove(scratch_.at("sys/class/dmi/id/product_name"));
  scratch_.write("sys/class/dmi/id/product_name", "Lumina\n");
  const auto answer = host().systemAnswer(kProvenanceReportKey);
  ASSERT_TRUE(answer.has_value());
  EXPECT_TRUE(std::get<SystemValue::Dictionary>(answer->value).contains("DMI"));
  EXPECT_FALSE(host().systemAnswer("another question").has_value());
}

TEST_F(LinuxHostInformationTest, CarriesInternalContentInTheInternalVariant) {
  const auto internal = [this](const std::string& text) {
    scratch_.write("etc/os-release", text);
    return host().carriesInternalContent("io.vantor.Quillsift");
  };
  EXPECT_TRUE(internal("VARIANT_ID=internal\n"));
  EXPECT_TRUE(internal("VARIANT_ID=\"internal\"\n"));
  EXPECT_FALSE(internal("VARIANT_ID=internal-test\n"));
  EXPECT_FALSE(internal("VARIANT=internal\n"));
  EXPECT_FALSE(internal(""));
}

TEST_F(LinuxHostInformationTest, IsNotInternalWithoutOSRelease) {
  scratch_.link("etc/os-release", "/dev/null");
  EXPECT_FALSE(host().carriesInternalContent("io.vantor.Quillsift"));
}

TEST_F(LinuxHostInformationTest, RunsTranslatedOnAKernelOfAnotherArchitecture) {
#if !defined(__x86_64__) && !defined(__aarch64__)
  GTEST_SKIP() << "the name of this architecture is not known";
#else
#if defined(__x86_64__)
  const std::string own = "x86_64\n", other = "aarch64\n";
#else
  const std::string own = "aarch64\n", other = "x86_64\n";
#endif
  const auto translated = [this](const std::string& architecture) {
    scratch_.write("proc/sys/kernel/arch", architecture);
    return host().runsTranslated();
  };
  EXPECT_TRUE(translated(other));
  EXPECT_FALSE(translated(own));
  EXPECT_FALSE(translated(""));
#endif
}

TEST_F(LinuxHostInformationTest, DoesNotRunTranslatedWhereTheKernelDoesNotTell) {
  scratch_.link("proc/sys/kernel/arch", "/dev/null");
  EXPECT_FALSE(host().runsTranslated());
}

TEST_F(LinuxHostInformationTest, TellsTheRealTime) {
  timespec before{}, now{}, after{};
  ASSERT_EQ(::clock_gettime(CLOCK_REALTIME, &before), 0);
  ASSERT_EQ(host().realTime(&now), 0);
  ASSERT_EQ(::clock_gettime(CLOCK_REALTIME, &after), 0);
  EXPECT_LE(before.tv_sec, now.tv_sec);
  EXPECT_LE(now.tv_sec, after.tv_sec);
}

TEST_F(LinuxHostInformationTest, NamesTheExecutableOfAProcess) {
  const std::string own = std::filesystem::read_symlink("/proc/self/exe");
  EXPECT_EQ(host().executablePath(::getpid(), 4096), own);
  EXPECT_EQ(host().executablePath(::getpid(), own.size()), own);
  EXPECT_EQ(host().executablePath(::getpid(), 5), own.substr(0, 5));
}

TEST_F(LinuxHostInformationTest, NamesNoExecutableOfAProcessThatIsNotThere) {
  EXPECT_EQ(host().executablePath(0x7FFFFFFF, 4096), "");
  EXPECT_EQ(host().executablePath(-1, 4096), "");
}

TEST_F(LinuxHostInformationTest, NamesADeletedExecutableAsItWasCalled) {
  const std::string program = scratch_.at("program (1)");
  std::filesystem::copy_file("/bin/sleep", program);
  std::string name = "program", seconds = "600";
  char* const arguments[] = {name.data(), seconds.data(), nullptr};
  pid_t child = 0;
  ASSERT_EQ(::posix_spawn(&child, program.c_str(), nullptr, nullptr, arguments, environ), 0);
  EXPECT_EQ(host().executablePath(child, 4096), program);
  std::filesystem::remove(program);
  EXPECT_EQ(host().executablePath(child, 4096), program);
  ::kill(child, SIGKILL);
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
}

}  // namespace
}  // namespace quillsift
