#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "tests/doubles/MemoryFileSystem.h"

namespace quillsift {
namespace {

class MemoryFileSystemTest : public testing::Test {
 protected:
  static std::string readSome(FileHandle& handle, std::size_t length) {
    std::string buffer(length, '\0');
    const auto count = handle.read(std::as_writable_bytes(std::span(buffer)));
    buffer.resize(static_cast<std::size_t>(std::max<std::int64_t>(count, 0)));
    return buffer;
  }

  MemoryFileSystem files_;
};

TEST_F(MemoryFileSystemTest, ReadsAFilePieceByPiece) {
  files_.addFile("/a", "content");
  const auto handle = files_.open("/a", true);
  EXPECT_EQ(readSome(*handle, 4), "cont");
  EXPECT_EQ(readSome(*handle, 4), "ent");
  EXPECT_EQ(readSome(*handle, 4), "");
  EXPECT_EQ(files_.openHandles(), 1U);
}

TEST_F(MemoryFileSystemTest, FollowsLinksOnRequestAndNotInCircles) {
  files_.addFile("/dir/file", "content");
  files_.addLink("/dir/relative", "file");
  files_.addLink("/absolute", "/dir/relative");
  files_.addLink("/circle", "/circle");
  EXPECT_EQ(readSome(*files_.open("/absolute", true), 10), "content");
  FileMetadata metadata;
  ASSERT_TRUE(files_.open("/absolute", false)->readMetadata(&metadata));
  EXPECT_EQ(metadata.objectType, 5U);
  EXPECT_EQ(files_.open("/circle", true), nullptr);
  EXPECT_EQ(errno, ELOOP);
  EXPECT_FALSE(files_.exists("/circle"));
}

TEST_F(MemoryFileSystemTest, DirectoriesOnTheWayExist) {
  files_.addFile("/a/b/c", "");
  files_.addDirectory("/empty");
  EXPECT_TRUE(files_.isDirectory("/a"));
  EXPECT_TRUE(files_.isDirectory("/a/b"));
  EXPECT_TRUE(files_.isDirectory("/empty"));
  EXPECT_FALSE(files_.isDirectory("/a/b/c"));
  EXPECT_TRUE(files_.exists("/a/b/c"));
  EXPECT_FALSE(files_.exists("/a/b/d"));
  EXPECT_FALSE(files_.exists("/a/b/c/d"));
}

TEST_F(MemoryFileSystemTest, ListsEachEntryOnceUpToABrokenOne) {
  files_.addFile("/d/.hidden", "");
  files_.addFile("/d/sub/one", "");
  files_.addFile("/d/sub/two", "");
  files_.addLink("/d/tail", "nowhere");
  files_.addFile("/dd/other", "");
  EXPECT_EQ(files_.entryNames("/d"), (std::vector<std::string>{".hidden", "sub", "tail"}));
  EXPECT_EQ(files_.entryNames("/d/"), files_.entryNames("/d"));
  EXPECT_TRUE(files_.entryNames("/nowhere").empty());
  files_.breakDirectoryAt("/d/sub");
  EXPECT_EQ(files_.entryNames("/d"), (std::vector<std::string>{".hidden"}));
}

TEST_F(MemoryFileSystemTest, AnOpenFileSurvivesItsPath) {
  files_.addFile("/a", "old");
  const auto handle = files_.open("/a", true);
  files_.addFile("/a", "new");
  EXPECT_EQ(readSome(*handle, 10), "old");
  EXPECT_EQ(files_.readWholeFile("/a", nullptr)->text(), "new");
}

TEST_F(MemoryFileSystemTest, FailsOnDemand) {
  const auto file = files_.addFile("/a", "content");
  file->readError = EIO;
  QSError error;
  EXPECT_FALSE(files_.readWholeFile("/a", &error));
  EXPECT_EQ(error.code, EIO);
  files_.failOpen("/absent", EACCES);
  EXPECT_EQ(files_.open("/absent", true), nullptr);
  EXPECT_EQ(errno, EACCES);
  EXPECT_EQ(files_.adopt(3, true), nullptr);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(MemoryFileSystemTest, RecordsWhatIsDoneAndCountsMappings) {
  files_.addDescriptor(3, files_.addFile("/a", "content"));
  {
    const auto data = files_.adopt(3, false)->map(9);
    EXPECT_EQ(data->text(), std::string("content\0\0", 9));
    EXPECT_EQ(files_.mappings(), 1U);
  }
  EXPECT_EQ(files_.mappings(), 0U);
  EXPECT_EQ(files_.openHandles(), 0U);
  EXPECT_EQ(files_.operations(), (std::vector<MemoryFileSystem::Operation>{
                                     {"adopt", "descriptor 3", 0}, {"map", "descriptor 3", 9}}));
}

}  // namespace
}  // namespace quillsift
