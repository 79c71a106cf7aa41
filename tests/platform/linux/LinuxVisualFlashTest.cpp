#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include "platform/linux/LinuxVisualFlash.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

using std::chrono::milliseconds;

class LinuxVisualFlashTest : public testing::Test {
 protected:
  std::string written() const {
    std::ifstream file(scratch_.at("dev/tty0"), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  const ScratchTree scratch_;
  LinuxVisualFlash flash_{scratch_.tree(), {milliseconds(40), milliseconds(10)}};
};

TEST_F(LinuxVisualFlashTest, InvertsOnceAndLong) {
  scratch_.write("dev/tty0", "");
  const auto start = std::chrono::steady_clock::now();
  flash_.flash();
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(40));
  EXPECT_EQ(written(), "\x1b[?5h\x1b[?5l");
}

TEST_F(LinuxVisualFlashTest, InvertsTwiceAndShortWithParameters) {
  scratch_.write("dev/tty0", "");
  flash_.flash({0.5, 0.5, 0.5, 0.5, 1.0, 0.0, 0.0});
  EXPECT_EQ(written(), "\x1b[?5h\x1b[?5l\x1b[?5h\x1b[?5l");
}

TEST_F(LinuxVisualFlashTest, DoesNothingWithoutATerminal) {
  scratch_.link("dev/tty0", "/dev/null");
  flash_.flash();
  flash_.flash({});
}

}  // namespace
}  // namespace quillsift
