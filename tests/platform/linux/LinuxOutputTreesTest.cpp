#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <system_error>
#include <thread>

#include "platform/FileDescriptor.h"
#include "platform/linux/GuardedMapping.h"
#include "platform/linux/LinuxOutputTrees.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

namespace fs = std::filesystem;
using testing::IsEmpty;

constexpr uid_t kNobody = 65534;

class LinuxOutputTreesTest : public testing::Test {
 protected:
  LinuxOutputTreesTest() : umaskBefore_(::umask(0022)) {}
  ~LinuxOutputTreesTest() override {
    ::umask(umaskBefore_);
    EXPECT_EQ(openDescriptors(), descriptorsBefore_);
  }

  static std::size_t openDescriptors() {
    const fs::directory_iterator entries("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
  }

  std::unique_ptr<OutputTree> make(const std::string& path) {
    return LinuxOutputTrees().makeDirectory(path);
  }
  std::unique_ptr<OutputTree> tree() { return make(scratch_.at("d")); }

  // The errno value of an attempt, 0 for a success.
  static int failure(bool succeeded) { return succeeded ? 0 : errno; }

  static bool write(OutputTree& tree, const std::string& path, std::string_view text,
                    const OutputFileAttributes& attributes = {
                        .mode = 0644, .ownerID = ::geteuid(), .groupID = ::getegid()}) {
    return tree.makeParentOf(path) &&
           tree.writeFile(path, std::as_bytes(std::span(text)), attributes);
  }

  static std::string content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  static mode_t mode(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
  }

  std::set<std::string> names(const std::string& relative) const {
    std::set<std::string> found;
    for (const auto& entry : fs::directory_iterator(scratch_.at(relative)))
      found.insert(entry.path().filename());
    return found;
  }

  bool exists(const std::string& relative) const {
    std::error_code ignored;
    return fs::symlink_status(scratch_.at(relative), ignored).type() != fs::file_type::not_found;
  }

  const ScratchTree scratch_;

 private:
  const std::size_t descriptorsBefore_ = openDescriptors();
  const mode_t umaskBefore_;
};

// --- the directory itself

TEST_F(LinuxOutputTreesTest, MakesADirectoryWithThoseOnTheWayOpenToAll) {
  ::umask(0077);
  ASSERT_TRUE(make(scratch_.at("a/b/c")));
  for (const char* made : {"a", "a/b", "a/b/c"})
    EXPECT_EQ(mode(scratch_.at(made)), 0777U) << made;
}

TEST_F(LinuxOutputTreesTest, LeavesTheModesOfDirectoriesThatAreThere) {
  scratch_.makeDirectory("a/b");
  ASSERT_EQ(::chmod(scratch_.at("a").c_str(), 0750), 0);
  ASSERT_EQ(::chmod(scratch_.at("a/b").c_str(), 0700), 0);
  ASSERT_TRUE(make(scratch_.at("a/b")));
  ASSERT_TRUE(make(scratch_.at("a/b/c")));
  EXPECT_EQ(mode(scratch_.at("a")), 0750U);
  EXPECT_EQ(mode(scratch_.at("a/b")), 0700U);
  EXPECT_EQ(mode(scratch_.at("a/b/c")), 0777U);
}

TEST_F(LinuxOutputTreesTest, TakesPathsAsTheyAreWritten) {
  ASSERT_TRUE(make(scratch_.directory() + "//a/./b/../c//"));
  EXPECT_TRUE(exists("a/c"));
  EXPECT_TRUE(make("/"));
  EXPECT_TRUE(make("."));
}

TEST_F(LinuxOutputTreesTest, FollowsLinksInThePath) {
  scratch_.makeDirectory("real");
  scratch_.link("link", "real");
  const auto inside = make(scratch_.at("link/sub"));
  ASSERT_TRUE(inside && write(*inside, "file", "text"));
  EXPECT_EQ(content(scratch_.at("real/sub/file")), "text");
  const auto itself = make(scratch_.at("link"));
  ASSERT_TRUE(itself && write(*itself, "other", "text"));
  EXPECT_EQ(content(scratch_.at("real/other")), "text");
}

TEST_F(LinuxOutputTreesTest, FailsWhereSomethingElseStands) {
  scratch_.write("file", "");
  scratch_.link("dangling", "nowhere");
  scratch_.link("looping", "looping");
  EXPECT_EQ(failure(make(scratch_.at("file")) != nullptr), ENOTDIR);
  EXPECT_EQ(failure(make(scratch_.at("file/below")) != nullptr), ENOTDIR);
  EXPECT_EQ(failure(make(scratch_.at("dangling")) != nullptr), ENOTDIR);
  EXPECT_EQ(failure(make(scratch_.at("looping")) != nullptr), ELOOP);
  EXPECT_EQ(failure(make("") != nullptr), ENOENT);
  EXPECT_EQ(failure(make(scratch_.at(std::string(256, 'x'))) != nullptr), ENAMETOOLONG);
  EXPECT_FALSE(exists("nowhere"));
}

// --- files

TEST_F(LinuxOutputTreesTest, WritesAFileWithAllItsAttributes) {
  const auto d = tree();
  const OutputFileAttributes attributes{
      .mode = 06751,
      .ownerID = ::geteuid() == 0 ? 1234U : ::geteuid(),
      .groupID = ::geteuid() == 0 ? 4321U : ::getegid(),
      .extendedAttributes = {{"user.note", QSData(std::string("a\0b", 3))},
                             {"user.empty", QSData()},
                             {"no.such.namespace", QSData(std::string("x"))}}};
  ASSERT_TRUE(write(*d, "Logs/a.log", "text", attributes));
  const std::string path = scratch_.at("d/Logs/a.log");
  EXPECT_EQ(content(path), "text");
  EXPECT_EQ(mode(path), 06751U);  // the set-id bits have outlived the change of owner
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, attributes.ownerID);
  EXPECT_EQ(status.st_gid, attributes.groupID);
  EXPECT_EQ(mode(scratch_.at("d/Logs")), 0777U);

  char value[10] = {};
  if (::getxattr(path.c_str(), "user.note", value, sizeof value) == -1 && errno == ENOTSUP) {
    GTEST_SKIP() << "no extended attributes here";
  }
  EXPECT_EQ(::getxattr(path.c_str(), "user.note", value, sizeof value), 3);
  EXPECT_EQ(std::string(value, 3), std::string("a\0b", 3));
  EXPECT_EQ(::getxattr(path.c_str(), "user.empty", value, sizeof value), 0);
}

TEST_F(LinuxOutputTreesTest, SetsTheModeAlsoWhereTheOwnerCannotBeSet) {
  ASSERT_EQ(::chmod(scratch_.directory().c_str(), 0777), 0);
  const bool isRoot = ::geteuid() == 0;
  ASSERT_EQ(::seteuid(isRoot ? kNobody : ::geteuid()), 0);
  const auto d = tree();
  const bool written = d && write(*d, "file", "text", {.mode = 0604, .ownerID = 0, .groupID = 0});
  ASSERT_EQ(::seteuid(isRoot ? 0 : ::geteuid()), 0);
  ASSERT_TRUE(written);
  EXPECT_EQ(mode(scratch_.at("d/file")), 0604U);
}

TEST_F(LinuxOutputTreesTest, WritesOverALongerFileWithoutItsTail) {
  const auto d = tree();
  ASSERT_TRUE(write(*d, "file", "something longer"));
  ASSERT_TRUE(write(*d, "file", "short"));
  EXPECT_EQ(content(scratch_.at("d/file")), "short");
}

TEST_F(LinuxOutputTreesTest, LeavesAFileThatWasThereToItsOtherNamesAndReaders) {
  const auto d = tree();
  const std::string outside = scratch_.write("outside", "kept");
  ASSERT_EQ(::chmod(outside.c_str(), 0640), 0);
  ASSERT_EQ(::link(outside.c_str(), scratch_.at("d/file").c_str()), 0);
  const FileDescriptor reader(::open(outside.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(write(*d, "file", "secret"));
  EXPECT_EQ(content(scratch_.at("d/file")), "secret");
  EXPECT_EQ(content(outside), "kept");
  EXPECT_EQ(mode(outside), 0640U);
  char seen[10] = {};
  EXPECT_EQ(::pread(reader.get(), seen, sizeof seen, 0), 4);
}

TEST_F(LinuxOutputTreesTest, WritesThroughNoLinkThatIsPlantedMeanwhile) {
  const auto d = tree();
  const std::string outside = scratch_.write("outside", "kept");
  const std::string target = scratch_.at("d/sub/file");
  ASSERT_TRUE(d->makeParentOf("sub/file"));
  std::jthread planting([&](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      ::unlink(target.c_str());
      [[maybe_unused]] const int ignored = ::link(outside.c_str(), target.c_str());
    }
  });
  for (int round = 0; round < 2000; ++round)
    write(*d, "sub/file", "secret");
  planting.request_stop();
  planting.join();
  EXPECT_EQ(content(outside), "kept");
}

TEST_F(LinuxOutputTreesTest, RemovesNothingBehindALinkOnTheWay) {
  const auto d = tree();
  scratch_.write("outside/file", "kept");
  scratch_.link("d/sub", "../outside");
  EXPECT_EQ(failure(write(*d, "sub/file", "text")), ELOOP);
  EXPECT_EQ(content(scratch_.at("outside/file")), "kept");
}

TEST_F(LinuxOutputTreesTest, WritesWhatIsLongerThanItsBlocks) {
  std::string text(1'000'003, '\0');
  for (std::size_t i = 0; i < text.size(); ++i)
    text[i] = static_cast<char>(i * 31 / 7);
  const auto d = tree();
  ASSERT_TRUE(write(*d, "file", text));
  EXPECT_TRUE(content(scratch_.at("d/file")) == text);
}

TEST_F(LinuxOutputTreesTest, WritesZerosForLostPages) {
  const std::string source = scratch_.write("source", std::string(700'000, 'x'));
  const FileDescriptor file(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
  auto mapped = GuardedMapping::ofFile(file.get(), 700'000);
  ASSERT_TRUE(mapped);
  ASSERT_EQ(::truncate(source.c_str(), 300'000), 0);
  const auto d = tree();
  ASSERT_TRUE(write(*d, "file", mapped->text()));
  EXPECT_TRUE(content(scratch_.at("d/file")) ==
              std::string(300'000, 'x') + std::string(400'000, '\0'));
}

TEST_F(LinuxOutputTreesTest, TakesNamesAsTheBytesTheyAre) {
  const auto d = tree();
  ASSERT_TRUE(write(*d, "caf\xE9\n/\xFF .log", "text"));
  EXPECT_EQ(content(scratch_.at("d/caf\xE9\n/\xFF .log")), "text");
}

TEST_F(LinuxOutputTreesTest, ShowsAnUnfinishedFileToNobodyElse) {
  const auto d = tree();
  ::umask(0);
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto handler = ::signal(SIGXFSZ, SIG_IGN);
  const rlimit small{.rlim_cur = 10, .rlim_max = before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  const int reason = failure(write(*d, "file", "longer than ten bytes"));
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  ::signal(SIGXFSZ, handler);
  EXPECT_EQ(reason, EFBIG);
  EXPECT_EQ(content(scratch_.at("d/file")), "longer tha");
  EXPECT_EQ(mode(scratch_.at("d/file")), 0600U);
}

TEST_F(LinuxOutputTreesTest, MakesParentsOpenToAllAndOnlyOnce) {
  ::umask(0077);
  const auto d = tree();
  ASSERT_TRUE(d->makeParentOf("a/b/file"));
  EXPECT_EQ(mode(scratch_.at("d/a")), 0777U);
  EXPECT_EQ(mode(scratch_.at("d/a/b")), 0777U);
  ASSERT_EQ(::chmod(scratch_.at("d/a/b").c_str(), 0700), 0);
  ASSERT_TRUE(d->makeParentOf("a/b/other"));
  ASSERT_TRUE(d->makeParentOf("a/file"));
  ASSERT_TRUE(d->makeParentOf("a/b/third"));
  EXPECT_EQ(mode(scratch_.at("d/a/b")), 0700U);
  EXPECT_TRUE(d->makeParentOf("file"));
}

TEST_F(LinuxOutputTreesTest, MakesAParentAgainThatIsGone) {
  const auto d = tree();
  ASSERT_TRUE(write(*d, "a/file", "1"));
  fs::remove_all(scratch_.at("d/a"));
  ASSERT_TRUE(write(*d, "b/file", "2"));
  ASSERT_TRUE(write(*d, "a/file", "3"));
  EXPECT_EQ(content(scratch_.at("d/a/file")), "3");
}

TEST_F(LinuxOutputTreesTest, CountsAFileAsAParentThatIsThere) {
  const auto d = tree();
  ASSERT_TRUE(write(*d, "a", "file"));
  EXPECT_TRUE(d->makeParentOf("a/b"));
  EXPECT_EQ(failure(write(*d, "a/b", "text")), ENOTDIR);
  EXPECT_EQ(failure(d->makeParentOf("a/b/c")), ENOTDIR);
}

TEST_F(LinuxOutputTreesTest, WritesOnlyFiles) {
  const auto d = tree();
  fs::create_directory(scratch_.at("d/directory"));
  EXPECT_EQ(failure(write(*d, "directory", "text")), EISDIR);
  EXPECT_EQ(failure(write(*d, "directory/", "text")), EISDIR);
  EXPECT_EQ(failure(write(*d, "", "text")), EISDIR);
  EXPECT_EQ(failure(write(*d, ".", "text")), EISDIR);
}

TEST_F(LinuxOutputTreesTest, NeitherWaitsAtAPipeNorWritesIntoOne) {
  const auto d = tree();
  const std::string path = scratch_.at("d/pipe");
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(failure(write(*d, "pipe", "text")), EEXIST);
  const FileDescriptor reader(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  EXPECT_EQ(failure(write(*d, "pipe", "text")), EEXIST);
  char byte = 0;
  EXPECT_EQ(::read(reader.get(), &byte, 1), 0);
}

TEST_F(LinuxOutputTreesTest, WritesIntoNoDevice) {
  const auto d = tree();
  if (::mknod(scratch_.at("d/null").c_str(), S_IFCHR | 0666, ::makedev(1, 3)) != 0) {
    GTEST_SKIP() << "may not make a device here";
  }
  EXPECT_EQ(failure(write(*d, "null", "text")), EEXIST);
}

TEST_F(LinuxOutputTreesTest, FollowsNoLinkInsideTheDirectory) {
  scratch_.makeDirectory("outside");
  scratch_.write("outside/file", "kept");
  const auto d = tree();
  scratch_.link("d/link", scratch_.at("outside"));
  scratch_.link("d/up", "../outside");
  scratch_.link("d/inside", ".");
  scratch_.link("d/file", "../outside/file");
  scratch_.link("d/dangling", "../outside/made");
  EXPECT_EQ(failure(write(*d, "link/file", "text")), ELOOP);
  EXPECT_EQ(failure(write(*d, "up/file", "text")), ELOOP);
  EXPECT_EQ(failure(write(*d, "inside/file", "text")), ELOOP);
  EXPECT_EQ(failure(write(*d, "file", "text")), ELOOP);
  EXPECT_EQ(failure(write(*d, "dangling", "text")), ELOOP);
  EXPECT_NE(failure(write(*d, "link/sub/file", "text")), 0);
  EXPECT_EQ(content(scratch_.at("outside/file")), "kept");
  EXPECT_EQ(names("outside"), std::set<std::string>{"file"});
}

TEST_F(LinuxOutputTreesTest, LeadsNowhereElseWhateverThePathSays) {
  const auto d = tree();
  EXPECT_EQ(failure(write(*d, "../escaped", "text")), EXDEV);
  EXPECT_EQ(failure(write(*d, scratch_.at("escaped"), "text")), EXDEV);
  EXPECT_FALSE(exists("escaped"));
}

TEST_F(LinuxOutputTreesTest, FailsForNamesThatAreTooLong) {
  const auto d = tree();
  EXPECT_EQ(failure(write(*d, std::string(256, 'x'), "text")), ENAMETOOLONG);
  EXPECT_EQ(failure(d->makeParentOf(std::string(256, 'x') + "/file")), ENAMETOOLONG);
  EXPECT_TRUE(write(*d, std::string(255, 'x'), "text"));
}

TEST_F(LinuxOutputTreesTest, GoesOnInTheDirectoryThatWasMadeWhenItMoves) {
  const auto d = tree();
  fs::rename(scratch_.at("d"), scratch_.at("moved"));
  scratch_.link("d", "/nowhere");
  ASSERT_TRUE(write(*d, "a/file", "text"));
  EXPECT_EQ(content(scratch_.at("moved/a/file")), "text");
}

// --- removal

TEST_F(LinuxOutputTreesTest, RemovesEverythingAlsoWhatWasThere) {
  scratch_.write("d/old/file", "old");
  scratch_.write("d/.hidden", "old");
  scratch_.write("beside", "kept");
  const auto d = tree();
  ASSERT_TRUE(write(*d, "Logs/a.log", "text"));
  ASSERT_EQ(::mkfifo(scratch_.at("d/pipe").c_str(), 0600), 0);
  ASSERT_EQ(::chmod(scratch_.at("d/old/file").c_str(), 0), 0);
  d->removeWithEverything();
  EXPECT_EQ(names(""), std::set<std::string>{"beside"});
}

TEST_F(LinuxOutputTreesTest, RemovesTheDirectoriesItMadeOnlyFromItsOwnOn) {
  const auto d = make(scratch_.at("a/b"));
  d->removeWithEverything();
  EXPECT_TRUE(exists("a"));
  EXPECT_FALSE(exists("a/b"));
}

TEST_F(LinuxOutputTreesTest, RemovesLinksWithoutFollowingThem) {
  scratch_.write("outside/file", "kept");
  scratch_.makeDirectory("d/sub");
  scratch_.link("d/link", scratch_.at("outside"));
  scratch_.link("d/sub/link", "../../outside");
  scratch_.link("d/sub/file", "../../outside/file");
  tree()->removeWithEverything();
  EXPECT_FALSE(exists("d"));
  EXPECT_EQ(content(scratch_.at("outside/file")), "kept");
}

TEST_F(LinuxOutputTreesTest, RemovesOnlyTheLinkWhereTheDirectoryIsOne) {
  scratch_.write("real/file", "kept");
  scratch_.link("d", "real");
  tree()->removeWithEverything();
  EXPECT_FALSE(exists("d"));
  EXPECT_EQ(content(scratch_.at("real/file")), "kept");
}

TEST_F(LinuxOutputTreesTest, RemovesADeepTree) {
  std::string path = "d";
  for (int depth = 0; depth < 500; ++depth)
    path += "/x";
  scratch_.write(path + "/file", "deep");
  tree()->removeWithEverything();
  EXPECT_FALSE(exists("d"));
}

TEST_F(LinuxOutputTreesTest, RemovesATreeThatIsDeeperThanThereAreDescriptors) {
  std::string path = "d";
  for (int depth = 0; depth < 300; ++depth) {
    path += "/x";
    scratch_.write(path + "/file", "beside");
  }
  const auto d = tree();
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit few{.rlim_cur = openDescriptors() + 50, .rlim_max = before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
  d->removeWithEverything();
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_FALSE(exists("d"));
}

TEST_F(LinuxOutputTreesTest, RemovesTheDirectoryThatAPathGoesUpTo) {
  scratch_.write("around/d/sub/file", "lost");
  scratch_.write("around/kept", "text");
  make(scratch_.at("around/d/sub/.."))->removeWithEverything();
  EXPECT_EQ(names("around"), std::set<std::string>{"kept"});
  scratch_.write("around/d/sub/file", "lost");
  scratch_.link("up", "around/d/sub");
  make(scratch_.at("up/../"))->removeWithEverything();
  EXPECT_EQ(names("around"), std::set<std::string>{"kept"});
  EXPECT_TRUE(exists("up"));
}

TEST_F(LinuxOutputTreesTest, RemovesManyEntries) {
  const auto d = tree();
  for (int i = 0; i < 3000; ++i)
    ASSERT_TRUE(write(*d, "sub" + std::to_string(i % 7) + "/" + std::to_string(i), "x"));
  d->removeWithEverything();
  EXPECT_FALSE(exists("d"));
}

// In a root of its own: what must not happen is not tried on this machine's.
TEST_F(LinuxOutputTreesTest, NeverRemovesTheRootDirectory) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root for a root directory of its own";
  scratch_.write("kept", "text");
  scratch_.makeDirectory("sub");
  scratch_.link("link", "/");
  const pid_t child = ::fork();
  if (child == 0) {
    if (::chroot(scratch_.directory().c_str()) != 0 || ::chdir("/") != 0) ::_exit(1);
    for (const char* path : {"/", "//", "/.", "/..", "/sub/..", ".", "/link", "/link/"}) {
      const auto root = make(path);
      if (!root) ::_exit(2);
      root->removeWithEverything();
    }
    ::_exit(0);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(names(""), (std::set<std::string>{"kept", "sub", "link"}));
}

class MountedVolumeTest : public LinuxOutputTreesTest {
 protected:
  void SetUp() override {
    scratch_.makeDirectory("d/volume");
    mounted_ = ::mount("tmpfs", volume_.c_str(), "tmpfs", 0, "size=256k,mode=0755") == 0;
    if (!mounted_) GTEST_SKIP() << "mounting a small file system takes root";
  }
  ~MountedVolumeTest() override {
    if (!mounted_) return;
    EXPECT_EQ(::umount2(volume_.c_str(), MNT_DETACH), 0);
  }

  const std::string volume_ = scratch_.at("d/volume");
  bool mounted_ = false;
};

TEST_F(MountedVolumeTest, IsLeftAloneWhenTheDirectoryAroundItIsRemoved) {
  scratch_.write("d/volume/file", "kept");
  scratch_.write("d/beside/file", "lost");
  tree()->removeWithEverything();
  EXPECT_EQ(content(scratch_.at("d/volume/file")), "kept");
  EXPECT_EQ(names("d"), std::set<std::string>{"volume"});
}

TEST_F(MountedVolumeTest, IsEmptiedWhenItIsTheDirectory) {
  scratch_.write("d/volume/old/file", "lost");
  make(volume_)->removeWithEverything();
  EXPECT_THAT(names("d/volume"), IsEmpty());
}

TEST_F(MountedVolumeTest, FailsAWriteWhenItIsFull) {
  const auto d = make(volume_);
  EXPECT_EQ(failure(write(*d, "file", std::string(1'000'000, 'x'))), ENOSPC);
  EXPECT_EQ(failure(write(*d, "small", std::string(8192, 'x'))), ENOSPC);
}

TEST_F(MountedVolumeTest, FailsWhenItIsReadOnly) {
  scratch_.write("d/volume/old", "kept");
  ASSERT_EQ(::mount(nullptr, volume_.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(failure(make(volume_ + "/sub") != nullptr), EROFS);
  const auto d = make(volume_);
  ASSERT_TRUE(d);
  EXPECT_EQ(failure(write(*d, "file", "text")), EROFS);
  EXPECT_EQ(failure(d->makeParentOf("sub/file")), EROFS);
  d->removeWithEverything();
  EXPECT_EQ(content(scratch_.at("d/volume/old")), "kept");
}

}  // namespace
}  // namespace quillsift
