#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/linux/TemporaryDirectory.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

constexpr const char* kLink = "tree/private/tmp";

class TemporaryDirectoryTest : public testing::Test {
 protected:
  std::string make() const {
    return makeTemporaryDirectory(PlatformTree(scratch_.makeDirectory("tree")));
  }
  mode_t modeOf(const std::string& path) const {
    struct stat status {};
    return ::lstat(scratch_.at(path).c_str(), &status) == 0 ? status.st_mode : 0;
  }

  const ScratchTree scratch_;
};

TEST_F(TemporaryDirectoryTest, IsMadeForItsOwnerAlone) {
  scratch_.link(kLink, scratch_.at("run/quillsift/tmp"));
  EXPECT_EQ(make(), "");
  EXPECT_EQ(modeOf("run/quillsift/tmp"), S_IFDIR | 0700u);
  EXPECT_EQ(make(), "");
}

TEST_F(TemporaryDirectoryTest, IsLeftAsItIsWhereItExists) {
  scratch_.link(kLink, scratch_.makeDirectory("run/quillsift/tmp"));
  const mode_t before = modeOf("run/quillsift/tmp");
  EXPECT_EQ(make(), "");
  EXPECT_EQ(modeOf("run/quillsift/tmp"), before);
  EXPECT_NE(before, S_IFDIR | 0700u);
}

TEST_F(TemporaryDirectoryTest, IsNoneWhereTheTreeHasNoLinkToOne) {
  EXPECT_EQ(make(), "");
  EXPECT_EQ(modeOf("tree/private"), 0u);
  scratch_.link(kLink, "relative");
  EXPECT_EQ(make(), "");
  EXPECT_EQ(modeOf("tree/private/relative"), 0u);
  EXPECT_EQ(makeTemporaryDirectory(PlatformTree("")), "");
}

TEST_F(TemporaryDirectoryTest, IsNotMadeBehindAnotherLink) {
  scratch_.link(kLink, scratch_.at("planted"));
  scratch_.link("planted", scratch_.at("elsewhere"));
  EXPECT_EQ(make(), "Cannot make the directory " + scratch_.at("planted") + ": File exists.");
  EXPECT_EQ(modeOf("elsewhere"), 0u);
}

TEST_F(TemporaryDirectoryTest, IsComplainedOfWhereItCannotBe) {
  scratch_.write("file", "");
  scratch_.link(kLink, scratch_.at("file/tmp"));
  EXPECT_EQ(make(), "Cannot make the directory " + scratch_.at("file/tmp") + ": Not a directory.");
}

}  // namespace
}  // namespace quillsift
