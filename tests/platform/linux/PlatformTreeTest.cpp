#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/linux/PlatformTree.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

using std::nullopt;

TEST(PlatformTreeTest, FindsAFileOfTheTreeBeforeTheHosts) {
  const ScratchTree scratch;
  const std::string file = scratch.write("etc/passwd", "tree");
  EXPECT_EQ(scratch.tree()->resolve("/etc/passwd"), file);
}

TEST(PlatformTreeTest, FallsBackToTheHostsPath) {
  const ScratchTree scratch;
  scratch.write("bin/ps", "tool");
  EXPECT_EQ(scratch.tree()->resolve("/bin/df"), "/bin/df");
  EXPECT_EQ(scratch.tree()->resolve("/no/such/thing"), "/no/such/thing");
}

TEST(PlatformTreeTest, FollowsALinkOfTheTree) {
  const ScratchTree scratch;
  const ScratchTree elsewhere;
  const std::string log = elsewhere.write("syslog", "log");
  const std::string link = scratch.link("private/var/log/system.log", log);
  EXPECT_EQ(scratch.tree()->resolve("/private/var/log/system.log"), link);
}

TEST(PlatformTreeTest, FollowsParentsThatAreLinks) {
  const ScratchTree scratch;
  const ScratchTree elsewhere;
  elsewhere.write("dump", "d");
  scratch.link("private/tmp", elsewhere.directory());
  EXPECT_EQ(scratch.tree()->resolve("/private/tmp/dump"), scratch.at("private/tmp/dump"));
}

TEST(PlatformTreeTest, TakesADirectoryOfTheTreeForTheHosts) {
  const ScratchTree scratch;
  const std::string directory = scratch.makeDirectory("etc");
  EXPECT_EQ(scratch.tree()->resolve("/etc"), directory);
  EXPECT_EQ(scratch.tree()->resolve("/etc/"), directory + "/");
}

TEST(PlatformTreeTest, CountsADanglingLinkAsAbsent) {
  const ScratchTree scratch;
  scratch.link("etc/passwd", scratch.at("nothing/here"));
  EXPECT_EQ(scratch.tree()->resolve("/etc/passwd"), "/etc/passwd");
}

TEST(PlatformTreeTest, CountsALoopOfLinksAsAbsent) {
  const ScratchTree scratch;
  scratch.link("etc/passwd", "shadow");
  scratch.link("etc/shadow", "passwd");
  EXPECT_EQ(scratch.tree()->resolve("/etc/passwd"), "/etc/passwd");
}

TEST(PlatformTreeTest, FallsBackOnTheNextLinkOfThatName) {
  const ScratchTree scratch;
  const ScratchTree elsewhere;
  const std::string log = elsewhere.write("boot.log", "log");
  scratch.link("var/log/rescue.log", elsewhere.at("first"));
  scratch.link("var/log/rescue.log@2", elsewhere.at("second"));
  const std::string third = scratch.link("var/log/rescue.log@3", log);
  EXPECT_EQ(scratch.tree()->resolve("/var/log/rescue.log"), third);

  elsewhere.write("first", "better");
  EXPECT_EQ(scratch.tree()->resolve("/var/log/rescue.log"), scratch.at("var/log/rescue.log"));
}

TEST(PlatformTreeTest, FallsBackAlsoForWhatIsBelowALink) {
  const ScratchTree scratch;
  const ScratchTree elsewhere;
  elsewhere.write("start/kernel", "k");
  scratch.link("Volumes/Boot", elsewhere.at("nothing"));
  const std::string second = scratch.link("Volumes/Boot@2", elsewhere.directory());
  EXPECT_EQ(scratch.tree()->resolve("/Volumes/Boot"), second);
  EXPECT_EQ(scratch.tree()->resolve("/Volumes/Boot/start/kernel"), second + "/start/kernel");
  EXPECT_EQ(scratch.tree()->resolve("/Volumes/Boot/start/gone"), "/Volumes/Boot/start/gone");
  EXPECT_EQ(scratch.tree()->resolve("/Volumes/Boot/"), second + "/");
}

TEST(PlatformTreeTest, FallsBackOnLinksOnlyAndOnNothingAfterAGap) {
  const ScratchTree scratch;
  const ScratchTree elsewhere;
  const std::string log = elsewhere.write("log", "log");
  scratch.link("etc/plain@2", log);  // no link that it could stand in for
  scratch.link("etc/gap", elsewhere.at("first"));
  scratch.link("etc/gap@3", log);
  EXPECT_EQ(scratch.tree()->resolve("/etc/plain"), "/etc/plain");
  EXPECT_EQ(scratch.tree()->resolve("/etc/gap"), "/etc/gap");
}

TEST(PlatformTreeTest, HidesAHostFileBehindALinkToTheNullDevice) {
  const ScratchTree scratch;
  scratch.link("etc/passwd", "/dev/null");
  EXPECT_EQ(scratch.tree()->resolve("/etc/passwd"), nullopt);
}

TEST(PlatformTreeTest, HidesAlsoBehindALinkThatAnotherFallsBackOn) {
  const ScratchTree scratch;
  scratch.link("etc", scratch.at("nothing"));
  scratch.link("etc@2", "/dev/null");
  EXPECT_EQ(scratch.tree()->resolve("/etc"), nullopt);
  EXPECT_EQ(scratch.tree()->resolve("/etc/passwd"), nullopt);
}

TEST(PlatformTreeTest, HidesAlsoBehindAChainOfLinks) {
  const ScratchTree scratch;
  scratch.link("nothing", "/dev/null");
  scratch.link("etc/passwd", "../nothing");
  EXPECT_EQ(scratch.tree()->resolve("/etc/passwd"), nullopt);
}

TEST(PlatformTreeTest, HidesEverythingBelowAHiddenDirectory) {
  const ScratchTree scratch;
  scratch.link("etc", "/dev/null");
  EXPECT_EQ(scratch.tree()->resolve("/etc"), nullopt);
  EXPECT_EQ(scratch.tree()->resolve("/etc/passwd"), nullopt);
  EXPECT_EQ(scratch.tree()->resolve("/etc/ssl/certs"), nullopt);
  EXPECT_EQ(scratch.tree()->resolve("/etcetera"), "/etcetera");
}

TEST(PlatformTreeTest, DoesNotTakeTheNullDeviceItselfForALinkToIt) {
  const ScratchTree scratch;
  scratch.link("dev", "/dev");
  EXPECT_EQ(scratch.tree()->resolve("/dev/null"), scratch.at("dev/null"));
}

TEST(PlatformTreeTest, NeverLooksUpAPathThatLeadsUpwards) {
  const ScratchTree scratch;
  scratch.write("outside", "secret");
  scratch.makeDirectory("tree/etc");
  const PlatformTree tree(scratch.at("tree"));
  for (const char* path : {"/../outside", "/etc/../../outside", "/etc/..", "/.."}) {
    EXPECT_EQ(tree.resolve(path), path);
    EXPECT_EQ(tree.resolveForCreation(path), path);
  }
}

TEST(PlatformTreeTest, LooksUpNamesThatOnlyContainTwoDots) {
  const ScratchTree scratch;
  const std::string file = scratch.write("etc/..name..", "x");
  EXPECT_EQ(scratch.tree()->resolve("/etc/..name.."), file);
}

TEST(PlatformTreeTest, LeavesRelativePathsAndTheRootAlone) {
  const ScratchTree scratch;
  scratch.write("etc/passwd", "tree");
  for (const char* path : {"etc/passwd", "", ".", "/", "//"})
    EXPECT_EQ(scratch.tree()->resolve(path), path);
}

TEST(PlatformTreeTest, RefusesAPathWithANul) {
  const ScratchTree scratch;
  scratch.write("etc/passwd", "tree");
  const std::string path("/etc/passwd\0.txt", 16);
  EXPECT_EQ(scratch.tree()->resolve(path), nullopt);
  EXPECT_EQ(scratch.tree()->resolveForCreation(path), nullopt);
}

TEST(PlatformTreeTest, ResolvesTheParentOfWhatIsToBeCreated) {
  const ScratchTree scratch;
  const ScratchTree elsewhere;
  scratch.link("private/tmp", elsewhere.directory());
  const auto path = scratch.tree()->resolveForCreation("/private/tmp/NEW");
  ASSERT_EQ(path, scratch.at("private/tmp/NEW"));
  ASSERT_EQ(::mkdir(path->c_str(), 0700), 0);
  EXPECT_TRUE(std::filesystem::is_directory(elsewhere.at("NEW")));
}

TEST(PlatformTreeTest, CreatesOnTheHostWhereTheTreeHasNoParent) {
  const ScratchTree scratch;
  EXPECT_EQ(scratch.tree()->resolveForCreation("/private/tmp/NEW"), "/private/tmp/NEW");
  EXPECT_EQ(scratch.tree()->resolveForCreation("/NEW"), "/NEW");
  EXPECT_EQ(scratch.tree()->resolveForCreation("NEW"), "NEW");
}

TEST(PlatformTreeTest, CreatesNothingInAHiddenDirectory) {
  const ScratchTree scratch;
  scratch.link("private", "/dev/null");
  EXPECT_EQ(scratch.tree()->resolveForCreation("/private/tmp/NEW"), nullopt);
}

TEST(PlatformTreeTest, StandsBesideTheExecutable) {
  const auto executable = std::filesystem::read_symlink("/proc/self/exe");
  EXPECT_EQ(PlatformTree::directoryBesideExecutable(),
            (executable.parent_path() / "quillsift/platform").string());
}

TEST(PlatformTreeTest, SaysNothingAboutATreeThatIsNotThere) {
  const ScratchTree scratch;
  scratch.write("file", "");
  for (const std::string& directory :
       {std::string(), scratch.at("missing"), scratch.at("file/below")}) {
    const PlatformTree tree(directory);
    EXPECT_EQ(tree.complaint(), "") << directory;
    EXPECT_EQ(tree.resolve("/etc/passwd"), "/etc/passwd");
  }
}

TEST(PlatformTreeTest, ToleratesASlashBehindItsDirectory) {
  const ScratchTree scratch;
  const std::string file = scratch.write("etc/passwd", "tree");
  EXPECT_EQ(PlatformTree(scratch.directory() + "//").resolve("/etc/passwd"), file);
}

class DistrustedTreeTest : public testing::Test {
 protected:
  DistrustedTreeTest() { scratch_.write("tree/etc/passwd", "tree"); }

  void expectIgnored(const std::string& reason) const {
    const PlatformTree tree(directory_);
    EXPECT_EQ(tree.complaint(), "Ignoring the platform tree " + directory_ + ": " + reason + ".");
    EXPECT_EQ(tree.resolve("/etc/passwd"), "/etc/passwd");
    EXPECT_EQ(tree.resolveForCreation("/etc/new"), "/etc/new");
  }

  const ScratchTree scratch_;
  const std::string directory_ = scratch_.at("tree");
};

TEST_F(DistrustedTreeTest, WorksWhileOnlyItsOwnerCanWriteToIt) {
  ASSERT_EQ(::chmod(directory_.c_str(), 0755), 0);
  const PlatformTree tree(directory_);
  EXPECT_EQ(tree.complaint(), "");
  EXPECT_EQ(tree.resolve("/etc/passwd"), scratch_.at("tree/etc/passwd"));
}

TEST_F(DistrustedTreeTest, IsIgnoredWhenItsGroupCanWriteToIt) {
  ASSERT_EQ(::chmod(directory_.c_str(), 0775), 0);
  expectIgnored("others can write to it");
}

TEST_F(DistrustedTreeTest, IsIgnoredWhenEverybodyCanWriteToIt) {
  ASSERT_EQ(::chmod(directory_.c_str(), 01757), 0);
  expectIgnored("others can write to it");
}

TEST_F(DistrustedTreeTest, IsIgnoredWhenItBelongsToSomebodyElse) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a directory away";
  ASSERT_EQ(::chown(directory_.c_str(), 12345, 0), 0);
  expectIgnored("it belongs to user 12345");
}

TEST_F(DistrustedTreeTest, CountsForItsOwnUserAndForEverybodyWhenRootOwnsIt) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a directory away";
  ASSERT_EQ(::chmod(scratch_.directory().c_str(), 0755), 0);
  const auto complaintAs = [this](uid_t owner) {
    EXPECT_EQ(::chown(directory_.c_str(), owner, 0), 0);
    EXPECT_EQ(::seteuid(12345), 0);
    const std::string complaint = PlatformTree(directory_).complaint();
    EXPECT_EQ(::seteuid(0), 0);
    return complaint;
  };
  EXPECT_EQ(complaintAs(12345), "");
  EXPECT_EQ(complaintAs(0), "");
  EXPECT_NE(complaintAs(12346), "");
}

TEST_F(DistrustedTreeTest, IsIgnoredWhenItIsAFile) {
  std::filesystem::remove_all(directory_);
  scratch_.write("tree", "no directory");
  expectIgnored("it is not a directory");
}

TEST_F(DistrustedTreeTest, IsIgnoredWhenItCannotBeReached) {
  std::filesystem::remove_all(directory_);
  scratch_.link("tree", "tree");
  expectIgnored("Too many levels of symbolic links");
}

}  // namespace
}  // namespace quillsift
