#include <gtest/gtest.h>

#include "platform/linux/OSRelease.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

std::string valueOf(std::string_view text) {
  const OSRelease release = parseOSRelease(text);
  const auto entry = release.find("KEY");
  return entry == release.end() ? "(none)" : entry->second;
}

TEST(OSReleaseTest, ReadsPlainAndQuotedValues) {
  EXPECT_EQ(valueOf("KEY=value"), "value");
  EXPECT_EQ(valueOf("KEY=\"a value\"\n"), "a value");
  EXPECT_EQ(valueOf("KEY='a $value'\n"), "a $value");
  EXPECT_EQ(valueOf("KEY=\n"), "");
  EXPECT_EQ(valueOf("KEY=\"\"\n"), "");
}

TEST(OSReleaseTest, ResolvesEscapesAsAShellDoes) {
  EXPECT_EQ(valueOf(R"(KEY="\"\$\`\\\n")"), R"("$`\\n)");
  EXPECT_EQ(valueOf(R"(KEY='a\b')"), R"(a\b)");
  EXPECT_EQ(valueOf(R"(KEY=a\ b)"), "a b");
  EXPECT_EQ(valueOf("KEY=a\\"), "a\\");
}

TEST(OSReleaseTest, IgnoresWhiteSpaceAroundALine) {
  EXPECT_EQ(valueOf("  KEY=value \t\r\n"), "value");
}

TEST(OSReleaseTest, SkipsCommentsAndWhatIsNoAssignment) {
  EXPECT_EQ(valueOf("# KEY=value\n"), "(none)");
  EXPECT_EQ(valueOf("KEY\n=value\n\n"), "(none)");
  EXPECT_EQ(valueOf("KEY=\"open\n"), "(none)");
  EXPECT_EQ(valueOf(""), "(none)");
}

TEST(OSReleaseTest, LetsTheLastAssignmentWin) {
  EXPECT_EQ(valueOf("KEY=first\nOTHER=x\nKEY=last"), "last");
}

TEST(OSReleaseTest, IsReadThroughTheTree) {
  const ScratchTree scratch;
  scratch.write("etc/os-release", "KEY=tree\n");
  const auto release = readOSRelease(*scratch.tree());
  ASSERT_TRUE(release);
  EXPECT_EQ(release->at("KEY"), "tree");
}

TEST(OSReleaseTest, IsNoneWhereTheTreeHidesItOrItCannotBeRead) {
  const ScratchTree hidden;
  hidden.link("etc/os-release", "/dev/null");
  EXPECT_FALSE(readOSRelease(*hidden.tree()));
  const ScratchTree directory;
  directory.makeDirectory("etc/os-release");
  EXPECT_FALSE(readOSRelease(*directory.tree()));
}

}  // namespace
}  // namespace quillsift
