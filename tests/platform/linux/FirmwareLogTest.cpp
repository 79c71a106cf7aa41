#include <gtest/gtest.h>

#include <filesystem>

#include "platform/linux/FirmwareLog.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

constexpr const char* kSources[] = {"sys/firmware/log", "sys/firmware/efi/ovmf_debug_log",
                                    "sys/firmware/opal/msglog"};

class FirmwareLogTest : public testing::Test {
 protected:
  FirmwareLogTest() {
    // No test may see the machine's own.
    for (const char* path : kSources)
      scratch_.link(path, "/dev/null");
  }
  void setLog(const std::string& path, std::string_view content) const {
    std::filesystem::remove(scratch_.at(path));
    scratch_.write(path, content);
  }
  // The log, taken out of its ring again.
  std::string log() const {
    const auto ring = firmwareLogRing(*scratch_.tree());
    if (!ring) return "(none)";
    EXPECT_GT(ring->size(), 14u);
    const std::string text = ring->substr(14);
    EXPECT_EQ(ring->substr(0, 4), "POSL");
    EXPECT_EQ(number(*ring, 4), ring->size());
    EXPECT_EQ(number(*ring, 8), text.size() - 1);
    EXPECT_EQ(ring->substr(12, 2), std::string(2, '\0'));
    return text;
  }
  static std::size_t number(const std::string& bytes, std::size_t offset) {
    std::size_t number = 0;
    for (std::size_t i = 4; i > 0; --i)
      number = number << 8 | static_cast<unsigned char>(bytes[offset + i - 1]);
    return number;
  }

  const ScratchTree scratch_;
};

TEST_F(FirmwareLogTest, IsNoneOnAMachineWithoutOne) {
  EXPECT_EQ(log(), "(none)");
}

TEST_F(FirmwareLogTest, IsTakenFromEachOfItsPlaces) {
  for (const char* path : kSources) {
    setLog(path, std::string("log in ") + path);
    EXPECT_EQ(log(), std::string("log in ") + path);
    std::filesystem::remove(scratch_.at(path));
    scratch_.link(path, "/dev/null");
  }
}

TEST_F(FirmwareLogTest, IsTakenFromTheFirstPlaceThatHoldsAny) {
  setLog(kSources[2], "third");
  EXPECT_EQ(log(), "third");
  setLog(kSources[1], "second");
  EXPECT_EQ(log(), "second");
  setLog(kSources[0], "");
  EXPECT_EQ(log(), "second");
  setLog(kSources[0], std::string(100, '\0'));
  EXPECT_EQ(log(), "second");
  setLog(kSources[0], "first");
  EXPECT_EQ(log(), "first");
}

TEST_F(FirmwareLogTest, PassesOverAPlaceThatCannotBeRead) {
  std::filesystem::remove(scratch_.at(kSources[0]));
  scratch_.makeDirectory(kSources[0]);
  setLog(kSources[1], "second");
  EXPECT_EQ(log(), "second");
}

TEST_F(FirmwareLogTest, LosesTheZerosBehindIt) {
  setLog(kSources[0], std::string("\0a\0b\n\0\0\0", 8));
  EXPECT_EQ(log(), std::string("\0a\0b\n", 5));
}

TEST_F(FirmwareLogTest, KeepsItsNewestBytes) {
  setLog(kSources[0], "old" + std::string(kMostFirmwareLogBytes - 3, 'm') + "new");
  const std::string text = log();
  EXPECT_EQ(text.size(), kMostFirmwareLogBytes);
  EXPECT_TRUE(text.starts_with("mmm"));
  EXPECT_TRUE(text.ends_with("mnew"));
}

}  // namespace
}  // namespace quillsift
