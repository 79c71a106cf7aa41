#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/linux/LinuxInstallerProgress.h"
#include "platform/linux/LinuxProcessLauncher.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

class LinuxInstallerProgressTest : public testing::Test {
 protected:
  void script(const std::string& text) const {
    const std::string path = scratch_.write("usr/bin/plymouth", "#!/bin/sh\n" + text);
    ASSERT_EQ(::chmod(path.c_str(), 0755), 0);
  }

  const ScratchTree scratch_;
  LinuxProcessLauncher launcher_{[tree = scratch_.tree()](const std::string& path) {
    return tree->resolve(path).value_or("");
  }};
  LinuxInstallerProgress progress_{launcher_, std::chrono::minutes(1)};
};

TEST_F(LinuxInstallerProgressTest, AsksTheControlProgram) {
  const std::string noted = scratch_.at("arguments");
  script("echo \"$@\" >> " + noted + "\n");
  EXPECT_TRUE(progress_.isShowing());
  progress_.hide("Quillsift");
  std::ifstream file(noted);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "--ping\nhide-splash\n");
}

TEST_F(LinuxInstallerProgressTest, ShowsNothingWhereNobodyAnswers) {
  script("exit 1\n");
  EXPECT_FALSE(progress_.isShowing());
  scratch_.link("usr/bin/absent", "/dev/null");
  std::filesystem::rename(scratch_.at("usr/bin/absent"), scratch_.at("usr/bin/plymouth"));
  EXPECT_FALSE(progress_.isShowing());
}

TEST_F(LinuxInstallerProgressTest, DoesNotWaitForAControlProgramThatHangs) {
  script("exec sleep 1000\n");
  LinuxInstallerProgress impatient(launcher_, std::chrono::milliseconds(50));
  EXPECT_FALSE(impatient.isShowing());
  impatient.hide("phase");
}

}  // namespace
}  // namespace quillsift
