#include <gtest/gtest.h>

#include <set>

#include "tests/tools/ScratchMachine.h"
#include "tools/Recipe.h"

namespace quillsift::tools {
namespace {

TEST(RecipeTest, IsFoundByThePlansPath) {
  const Recipe* recipe = recipeNamed("/usr/sbin/lsof");
  ASSERT_NE(recipe, nullptr);
  EXPECT_EQ(recipe->planPath, "/usr/sbin/lsof");
}

TEST(RecipeTest, IsFoundByAPathInATree) {
  const Recipe* recipe = recipeNamed("/opt/libexec/quillsift/platform/bin/ps");
  ASSERT_NE(recipe, nullptr);
  EXPECT_EQ(recipe->planPath, "/bin/ps");
}

TEST(RecipeTest, IsNotFoundByItsLastComponentAlone) {
  EXPECT_EQ(recipeNamed("ps"), nullptr);
  EXPECT_EQ(recipeNamed("/usr/bin/ps"), recipeNamed("/bin/ps"));
  EXPECT_EQ(recipeNamed("quillsift-platform"), nullptr);
}

TEST(RecipeTest, EachPathIsAbsoluteAndListedOnce) {
  std::set<std::string_view> paths;
  for (const Recipe& recipe : recipes()) {
    EXPECT_TRUE(recipe.planPath.starts_with('/')) << recipe.planPath;
    EXPECT_TRUE(paths.insert(recipe.planPath).second) << recipe.planPath;
  }
}

// Which is a recipe's own affair, and which goes to the host's program of the same name.
class UnknownArgumentsTest : public testing::TestWithParam<const char*> {};

TEST_P(UnknownArgumentsTest, AreSaidInOneLine) {
  ScratchMachine machine;
  const std::string path = GetParam();
  const RunResult result = machine.run(path, {"-unheard", "of"});
  EXPECT_EQ(result.exitCode, 64);
  EXPECT_EQ(result.output, path.substr(path.rfind('/') + 1) + ": unknown arguments: -unheard of\n");
}

INSTANTIATE_TEST_SUITE_P(
    , UnknownArgumentsTest,
    testing::Values("/usr/sbin/stallscope", "/usr/bin/relquery", "/usr/sbin/platterctl",
                    "/usr/sbin/bootmark", "/bin/svcherd", "/usr/sbin/modtally", "/usr/bin/guardctl",
                    "/usr/sbin/vaultkit",
                    "/System/Library/Frameworks/Groundwork.framework/Frameworks/"
                    "Openhand.framework/Support/regtally",
                    "/usr/sbin/nvram", "/usr/bin/sealwarden", "/usr/bin/packrat",
                    "/System/Library/Extensions/DrGraphicsFamily.kext/pixdiag",
                    "/usr/libexec/fwlogdump", "/usr/sbin/drreg"));

}  // namespace
}  // namespace quillsift::tools
