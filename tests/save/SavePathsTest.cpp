#include <gtest/gtest.h>

#include "save/SavePaths.h"

namespace quillsift {
namespace {

TEST(SavePathsTest, AppendsToWhateverExtensionThereIs) {
  const SavePaths paths("/mnt/quillsift_1.2.tgz");
  EXPECT_EQ(paths.final, "/mnt/quillsift_1.2.tgz");
  EXPECT_EQ(paths.temporary, "/mnt/quillsift_1.2.tgz.inprogress");
}

TEST(SavePathsTest, DropsTrailingSlashes) {
  const SavePaths paths("/a/b//");
  EXPECT_EQ(paths.final, "/a/b");
  EXPECT_EQ(paths.temporary, "/a/b.inprogress");
}

TEST(SavePathsTest, KeepsTheRootAndTheEmptyPath) {
  EXPECT_EQ(SavePaths("///").final, "/");
  EXPECT_EQ(SavePaths("///").temporary, "/.inprogress");
  EXPECT_EQ(SavePaths("").final, "");
  EXPECT_EQ(SavePaths("").temporary, ".inprogress");
}

TEST(SavePathsTest, KeepsARelativeDestinationRelative) {
  EXPECT_EQ(SavePaths("out.tgz").temporary, "out.tgz.inprogress");
}

TEST(SavePathsTest, ALeadingSlashDoesNotLeadOutOfTheDirectory) {
  EXPECT_EQ(pathInside("/dest", "/drreg/DrService.txt"), "/dest/drreg/DrService.txt");
  EXPECT_EQ(pathInside("/dest", "///etc/passwd"), "/dest/etc/passwd");
  EXPECT_EQ(pathInside("/dest/", "Logs/install.log"), "/dest/Logs/install.log");
}

TEST(SavePathsTest, AParentComponentHasNoPlaceInTheDirectory) {
  EXPECT_EQ(pathInside("/dest", "../x"), std::nullopt);
  EXPECT_EQ(pathInside("/dest", "a/../../x"), std::nullopt);
  EXPECT_EQ(pathInside("/dest", "a/.."), std::nullopt);
  EXPECT_EQ(pathInside("/dest", ".."), std::nullopt);
}

TEST(SavePathsTest, DotsInANameAreNoParentComponent) {
  EXPECT_EQ(pathInside("/dest", "..a/b../...c"), "/dest/..a/b../...c");
}

}  // namespace
}  // namespace quillsift
