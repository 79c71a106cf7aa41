#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

#include "tests/doubles/RecordingOutputFiles.h"

namespace quillsift {
namespace {

class RecordingOutputFilesTest : public testing::Test {
 protected:
  RecordingOutputFilesTest() { EXPECT_NE(::mkdtemp(directory_.data()), nullptr); }
  ~RecordingOutputFilesTest() override {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }

  std::string path(const char* name) const { return directory_ + "/" + name; }
  static std::string content(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  std::string directory_ = testing::TempDir() + "outputXXXXXX";
  RecordingOutputFiles files_;
};

TEST_F(RecordingOutputFilesTest, WorksOnRealFilesAndKeepsTheOrder) {
  std::ofstream(path("a")) << "longer than before";
  FileDescriptor file = files_.openForWriting(path("a"));
  ASSERT_TRUE(file.valid());
  EXPECT_EQ(content(path("a")), "longer than before");
  EXPECT_TRUE(files_.disableCaching(file.get()));
  ASSERT_EQ(::write(file.get(), "short", 5), 5);
  EXPECT_TRUE(files_.truncateAtPosition(file.get()));
  EXPECT_TRUE(files_.flush(file.get()));
  EXPECT_TRUE(files_.flushToMedium(file.get()));
  EXPECT_TRUE(files_.renameAt(file.get(), path("a"), 4, path("b")));
  EXPECT_TRUE(files_.flushDirectoryOf(path("b")));
  EXPECT_EQ(content(path("b")), "short");
  files_.remove(path("b"));
  EXPECT_FALSE(std::filesystem::exists(path("b")));
  EXPECT_EQ(
      files_.operations(),
      (std::vector<std::string>{"openForWriting", "disableCaching", "truncateAtPosition", "flush",
                                "flushToMedium", "renameAt", "flushDirectoryOf", "remove"}));
  const auto rename = files_.calls()[5];
  EXPECT_EQ(rename.path, path("a"));
  EXPECT_EQ(rename.target, path("b"));
  EXPECT_EQ(rename.descriptor, file.get());
  EXPECT_EQ(rename.targetDescriptor, 4);
}

TEST_F(RecordingOutputFilesTest, FailsOnDemandAndDoesNothingThen) {
  std::ofstream(path("a")) << "content";
  for (const char* operation : {"openForWriting", "renameAt", "remove", "flush"})
    files_.fail(operation, ENOSPC);
  EXPECT_FALSE(files_.openForWriting(path("new")).valid());
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_FALSE(std::filesystem::exists(path("new")));
  EXPECT_FALSE(files_.renameAt(-1, path("a"), -1, path("b")));
  EXPECT_FALSE(files_.flush(-1));
  files_.remove(path("a"));
  EXPECT_EQ(content(path("a")), "content");
  EXPECT_EQ(files_.calls().size(), 4U);
  files_.fail("remove", 0);
  files_.remove(path("a"));
  EXPECT_FALSE(std::filesystem::exists(path("a")));
}

TEST_F(RecordingOutputFilesTest, TheHookRunsBeforeTheCall) {
  std::ofstream(path("a")) << "content";
  files_.onCall([&](const RecordingOutputFiles::Call& call) {
    EXPECT_EQ(call.operation, "renameAt");
    std::ofstream(path("a")) << "replaced";
  });
  EXPECT_TRUE(files_.renameAt(-1, path("a"), -1, path("b")));
  EXPECT_EQ(content(path("b")), "replaced");
}

}  // namespace
}  // namespace quillsift
