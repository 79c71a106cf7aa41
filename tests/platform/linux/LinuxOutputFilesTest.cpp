#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/linux/LinuxOutputFiles.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

class LinuxOutputFilesTest : public ::testing::Test {
 protected:
  LinuxOutputFilesTest() {
    if (::mkdtemp(directory_.data()) == nullptr) std::abort();
  }
  ~LinuxOutputFilesTest() override {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }

  std::string at(const std::string& name) const { return directory_ + "/" + name; }

  void write(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
  }

  std::string directory_ = "/tmp/quillsift-output.XXXXXX";
  LinuxOutputFiles files_;
};

TEST_F(LinuxOutputFilesTest, MakesAFileWithModeSixSixSixLessTheMask) {
  const mode_t mask = ::umask(027);
  const FileDescriptor file = files_.openForWriting(at("new"));
  ::umask(mask);
  struct stat status;
  ASSERT_EQ(::fstat(file.get(), &status), 0);
  EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0640));
}

TEST_F(LinuxOutputFilesTest, OpensForReadingAndWritingAndClosesOnExec) {
  const FileDescriptor file = files_.openForWriting(at("new"));
  ASSERT_TRUE(file.valid());
  EXPECT_EQ(::fcntl(file.get(), F_GETFL) & O_ACCMODE, O_RDWR);
  EXPECT_EQ(::fcntl(file.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(LinuxOutputFilesTest, NeitherShortensNorMovesInAnExistingFile) {
  write(at("old"), "0123456789");
  const FileDescriptor file = files_.openForWriting(at("old"));
  ASSERT_TRUE(file.valid());
  EXPECT_EQ(std::filesystem::file_size(at("old")), 10U);
  EXPECT_EQ(::lseek(file.get(), 0, SEEK_CUR), 0);
}

TEST_F(LinuxOutputFilesTest, FollowsNoLinkInPlaceOfTheFile) {
  write(at("precious"), "kept");
  std::filesystem::create_symlink(at("precious"), at("link"));
  std::filesystem::create_symlink(at("absent"), at("dangling"));
  for (const char* link : {"link", "dangling"}) {
    EXPECT_FALSE(files_.openForWriting(at(link)).valid());
    EXPECT_EQ(errno, ELOOP);
  }
  EXPECT_FALSE(std::filesystem::exists(at("absent")));
}

TEST_F(LinuxOutputFilesTest, SaysWhyAFileCannotBeOpened) {
  errno = 0;
  EXPECT_FALSE(files_.openForWriting(at("missing/new")).valid());
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(files_.openForWriting(directory_).valid());
  EXPECT_EQ(errno, EISDIR);
}

TEST_F(LinuxOutputFilesTest, AFullPipeFailsInsteadOfHolding) {
  ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);
  const FileDescriptor pipe = files_.openForWriting(at("pipe"));
  ASSERT_TRUE(pipe.valid());
  const std::string block(4096, 'x');
  ssize_t written;
  do {
    written = ::write(pipe.get(), block.data(), block.size());
  } while (written > 0);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(LinuxOutputFilesTest, CutsAtThePosition) {
  write(at("old"), "0123456789");
  const FileDescriptor file = files_.openForWriting(at("old"));
  ASSERT_EQ(::lseek(file.get(), 4, SEEK_SET), 4);
  EXPECT_TRUE(files_.truncateAtPosition(file.get()));
  EXPECT_EQ(std::filesystem::file_size(at("old")), 4U);
}

TEST_F(LinuxOutputFilesTest, OperationsOnAnOpenFileSucceed) {
  const FileDescriptor file = files_.openForWriting(at("new"));
  EXPECT_TRUE(files_.disableCaching(file.get()));
  EXPECT_TRUE(files_.flush(file.get()));
  EXPECT_TRUE(files_.flushToMedium(file.get()));
}

TEST_F(LinuxOutputFilesTest, OperationsOnNoFileFail) {
  const auto failsWith = [](bool result) { return result ? 0 : errno; };
  EXPECT_EQ(failsWith(files_.disableCaching(-1)), EBADF);
  EXPECT_EQ(failsWith(files_.truncateAtPosition(-1)), EBADF);
  EXPECT_EQ(failsWith(files_.flush(-1)), EBADF);
  EXPECT_EQ(failsWith(files_.flushToMedium(-1)), EBADF);
  EXPECT_EQ(failsWith(files_.leadsToFile(at("none"), -1)), EBADF);
}

TEST_F(LinuxOutputFilesTest, KnowsItsFileUnderItsPath) {
  const FileDescriptor file = files_.openForWriting(at("mine"));
  EXPECT_TRUE(files_.leadsToFile(at("mine"), file.get()));
  write(at("other"), "");
  EXPECT_FALSE(files_.leadsToFile(at("other"), file.get()));
  EXPECT_EQ(errno, ESTALE);
  EXPECT_FALSE(files_.leadsToFile(at("missing"), file.get()));
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(LinuxOutputFilesTest, AbsolutePathsMakeTheDirectoriesOfARenameIrrelevant) {
  const FileDescriptor file = files_.openForWriting(at("from"));
  EXPECT_TRUE(files_.renameAt(file.get(), at("from"), -1, at("to")));
  EXPECT_TRUE(std::filesystem::exists(at("to")));
  EXPECT_FALSE(files_.renameAt(file.get(), "from", -1, "to"));
  EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(LinuxOutputFilesTest, FlushesTheDirectoryThatHoldsAPath) {
  EXPECT_TRUE(files_.flushDirectoryOf(at("anything")));
  EXPECT_TRUE(files_.flushDirectoryOf("/anything"));
  EXPECT_TRUE(files_.flushDirectoryOf("relative"));
  EXPECT_FALSE(files_.flushDirectoryOf(at("missing/anything")));
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(LinuxOutputFilesTest, RemovesFilesOnlyAndSaysNothing) {
  write(at("file"), "");
  files_.remove(at("file"));
  EXPECT_FALSE(std::filesystem::exists(at("file")));
  files_.remove(at("file"));
  files_.remove(directory_);
  EXPECT_TRUE(std::filesystem::exists(directory_));
}

class OutputInTheTreeTest : public ::testing::Test {
 protected:
  const ScratchTree scratch_;
  LinuxOutputFiles files_{scratch_.tree()};
};

TEST_F(OutputInTheTreeTest, GoesWhereOnlyTheTreeHasTheDirectory) {
  const std::string directory = scratch_.makeDirectory("quillsift-only/volume");
  const std::string partial = "/quillsift-only/volume/x.inprogress";
  const FileDescriptor file = files_.openForWriting(partial);
  ASSERT_TRUE(file.valid());
  EXPECT_TRUE(std::filesystem::exists(directory + "/x.inprogress"));
  EXPECT_TRUE(files_.leadsToFile(partial, file.get()));
  EXPECT_TRUE(files_.renameAt(file.get(), partial, -1, "/quillsift-only/volume/x"));
  EXPECT_TRUE(std::filesystem::exists(directory + "/x"));
  EXPECT_TRUE(files_.flushDirectoryOf("/quillsift-only/volume/x"));
  files_.remove("/quillsift-only/volume/x");
  EXPECT_FALSE(std::filesystem::exists(directory + "/x"));
}

TEST_F(OutputInTheTreeTest, StaysOnTheHostWhereThatHasTheDirectory) {
  const ScratchTree host;
  scratch_.makeDirectory(host.directory());
  ASSERT_TRUE(files_.openForWriting(host.at("x")).valid());
  EXPECT_TRUE(std::filesystem::exists(host.at("x")));
  EXPECT_FALSE(std::filesystem::exists(scratch_.at(host.at("x"))));
}

TEST_F(OutputInTheTreeTest, FailsWhereNeitherHasTheDirectoryAndWhereTheTreeDeniesIt) {
  scratch_.link("quillsift-denied", "/dev/null");
  for (const char* path : {"/quillsift-missing/x", "/quillsift-denied/x"}) {
    EXPECT_FALSE(files_.openForWriting(path).valid());
    EXPECT_EQ(errno, ENOENT);
  }
}

}  // namespace
}  // namespace quillsift
