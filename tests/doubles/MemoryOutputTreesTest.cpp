#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "tests/doubles/MemoryOutputTrees.h"

namespace quillsift {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using Call = MemoryOutputTrees::Call;

class MemoryOutputTreesTest : public testing::Test {
 protected:
  static std::span<const std::byte> bytes(std::string_view text) {
    return std::as_bytes(std::span(text));
  }

  MemoryOutputTrees trees_;
};

TEST_F(MemoryOutputTreesTest, KeepsWhatIsWrittenAndTheOrderOfCalls) {
  const auto tree = trees_.makeDirectory("/d");
  ASSERT_TRUE(tree);
  EXPECT_TRUE(tree->makeParentOf("sub/a"));
  EXPECT_TRUE(tree->writeFile("sub/a", bytes("one"), {.mode = 0640, .ownerID = 5}));
  EXPECT_TRUE(tree->writeFile("sub/a", bytes("two"), {.mode = 0600}));
  ASSERT_THAT(trees_.files(), ElementsAre(Key("/d/sub/a")));
  EXPECT_EQ(trees_.files().at("/d/sub/a").content, "two");
  EXPECT_EQ(trees_.files().at("/d/sub/a").attributes.mode, 0600);
  EXPECT_THAT(trees_.directories(), ElementsAre("/d", "/d/sub"));
  EXPECT_THAT(trees_.calls(),
              ElementsAre(Call{"makeDirectory", "/d"}, Call{"makeParentOf", "/d/sub/a"},
                          Call{"writeFile", "/d/sub/a"}, Call{"writeFile", "/d/sub/a"}));
}

TEST_F(MemoryOutputTreesTest, FailsOnDemandForAllPathsOrForOne) {
  trees_.fail("makeDirectory", EROFS);
  EXPECT_FALSE(trees_.makeDirectory("/d"));
  EXPECT_EQ(errno, EROFS);
  trees_.fail("makeDirectory", 0);
  trees_.fail("writeFile", "/d/b", ENOSPC);
  const auto tree = trees_.makeDirectory("/d");
  EXPECT_TRUE(tree->writeFile("a", bytes("1"), {}));
  EXPECT_FALSE(tree->writeFile("b", bytes("1"), {}));
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_THAT(trees_.files(), ElementsAre(Key("/d/a")));
}

TEST_F(MemoryOutputTreesTest, HasNoDirectoryWhereAFileStands) {
  trees_.addFile("/d/a", "file");
  const auto tree = trees_.makeDirectory("/d");
  EXPECT_TRUE(tree->makeParentOf("a/b"));
  EXPECT_FALSE(tree->writeFile("a/b", bytes("1"), {}));
  EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(MemoryOutputTreesTest, RemovesOneTreeWithEverything) {
  trees_.addFile("/d/before", "1");
  trees_.addFile("/dd/other", "2");
  const auto tree = trees_.makeDirectory("/d");
  tree->makeParentOf("sub/a");
  tree->removeWithEverything();
  EXPECT_THAT(trees_.files(), ElementsAre(Key("/dd/other")));
  EXPECT_THAT(trees_.directories(), IsEmpty());
}

}  // namespace
}  // namespace quillsift
