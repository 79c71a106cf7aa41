#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "jobs/QSFileAttributes.h"
#include "tests/doubles/TestPlatform.h"

// A block that is too large must come back as the failure that it is, also under a sanitizer.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
  return "allocator_may_return_null=1";
}

namespace quillsift {
namespace {

using testing::Contains;
using testing::Not;

using Operation = MemoryFileSystem::Operation;

const std::string kPath = "/var/log/a.log";

class QSFileAttributesTest : public testing::Test {
 protected:
  MemoryFileSystem& files() { return platform_.fileSystem(); }

  std::shared_ptr<QSFileAttributes> attributes(std::int64_t options = 0) {
    QSError error;
    auto result = QSFileAttributes::fileAttributesForPath(kPath, options, &error);
    EXPECT_EQ(result != nullptr, !error) << error.description();
    return result;
  }

  // The names of what was done to the file, in order.
  std::vector<std::string> done() {
    std::vector<std::string> names;
    for (const Operation& operation : files().operations())
      names.push_back(operation.name);
    return names;
  }

  // The lengths that were asked for in an operation.
  std::vector<std::uint64_t> sizes(const std::string& name) {
    std::vector<std::uint64_t> found;
    for (const Operation& operation : files().operations()) {
      if (operation.name == name) found.push_back(operation.number);
    }
    return found;
  }

  void expectReadError(QSFileAttributes& attributes, int code) {
    QSError error;
    EXPECT_FALSE(attributes.readFileReturningDataWithError(&error).has_value());
    EXPECT_EQ(error.domain, kPOSIXErrorDomain);
    EXPECT_EQ(error.code, code);
    EXPECT_EQ(error.filePath, kPath);
  }

  TestPlatform platform_;
};

// --- attributes

TEST_F(QSFileAttributesTest, ReadsEveryAttribute) {
  const auto file = files().addFile(kPath, "content");
  file->metadata.ownerID = 501;
  file->metadata.groupID = 80;
  file->metadata.accessMask = 0100000 | 06751;
  file->metadata.flags = 0x8020;
  file->metadata.creationTime = {1, 2};
  file->metadata.modificationTime = {3, 4};
  file->metadata.changeTime = {5, 6};
  file->metadata.accessTime = {7, 8};
  file->metadata.addedTime = {9, 10};
  file->extendedAttributes = {{"user.a", QSData(std::string("1"))}, {"user.b", QSData()}};
  const auto read = attributes();
  EXPECT_EQ(read->fileType(), 1U);
  EXPECT_EQ(read->fileUID(), 501U);
  EXPECT_EQ(read->fileGID(), 80U);
  EXPECT_EQ(read->fileAccessMask(), 06751U);
  EXPECT_EQ(read->fileFlags(), 0x8020U);
  EXPECT_EQ(read->fileSize(), 7);
  EXPECT_TRUE(read->fileCreationTime()->isEqual(QSTime(timespec{1, 2})));
  EXPECT_TRUE(read->fileModificationTime()->isEqual(QSTime(timespec{3, 4})));
  EXPECT_TRUE(read->fileChangeTime()->isEqual(QSTime(timespec{5, 6})));
  EXPECT_TRUE(read->fileAccessTime()->isEqual(QSTime(timespec{7, 8})));
  EXPECT_TRUE(read->fileAddedTime()->isEqual(QSTime(timespec{9, 10})));
  ASSERT_EQ(read->extendedAttributes().size(), 2U);
  EXPECT_EQ(read->extendedAttributes().at("user.a").text(), "1");
  EXPECT_EQ(done(), (std::vector<std::string>{"open", "readMetadata", "readMountFlags",
                                              "extendedAttributes"}));
}

TEST_F(QSFileAttributesTest, ClearsTheTypeBitsOfTheAccessMaskAndNoOther) {
  const auto file = files().addFile(kPath, "");
  file->metadata.accessMask = 0xFFFFFFFF;
  EXPECT_EQ(attributes()->fileAccessMask(), 0xFFFF0FFFU);
}

TEST_F(QSFileAttributesTest, TimesThatAreNotKeptStayEmpty) {
  files().addFile(kPath, "content")->metadata.modificationTime = {3, 4};
  const auto read = attributes();
  EXPECT_FALSE(read->fileCreationTime());
  EXPECT_TRUE(read->fileModificationTime());
  EXPECT_FALSE(read->fileChangeTime());
  EXPECT_FALSE(read->fileAccessTime());
  EXPECT_FALSE(read->fileAddedTime());
}

TEST_F(QSFileAttributesTest, ATimeThatIsNoLongerKeptLeavesItsFieldAsItWas) {
  const auto file = files().addFile(kPath, "content");
  file->metadata.modificationTime = {3, 4};
  file->metadata.accessTime = {7, 8};
  const auto read = attributes();
  file->metadata.modificationTime.reset();
  file->metadata.accessTime = {70, 80};
  ASSERT_TRUE(read->readFileReturningDataWithError(nullptr));
  EXPECT_TRUE(read->fileModificationTime()->isEqual(QSTime(timespec{3, 4})));
  EXPECT_TRUE(read->fileAccessTime()->isEqual(QSTime(timespec{70, 80})));
}

TEST_F(QSFileAttributesTest, AMissingPathFailsWithThePathInTheError) {
  QSError error;
  EXPECT_EQ(QSFileAttributes::fileAttributesForPath(kPath, 0, &error), nullptr);
  EXPECT_EQ(error.domain, kPOSIXErrorDomain);
  EXPECT_EQ(error.code, ENOENT);
  EXPECT_EQ(error.filePath, kPath);
  EXPECT_EQ(QSFileAttributes::fileAttributesForPath(kPath, 0, nullptr), nullptr);
}

TEST_F(QSFileAttributesTest, CreationFailsWithWhateverCannotBeRead) {
  const struct {
    int MemoryFile::*failure;
    int code;
  } cases[] = {
      {&MemoryFile::openError, EACCES},
      {&MemoryFile::metadataError, EIO},
      {&MemoryFile::mountFlagsError, ESTALE},
  };
  for (const auto& each : cases) {
    files().addFile(kPath, "content").get()->*each.failure = each.code;
    QSError error;
    EXPECT_EQ(
        QSFileAttributes::fileAttributesForPath(kPath, QSFileAttributesKeepHandleOpen, &error),
        nullptr);
    EXPECT_EQ(error.code, each.code);
    EXPECT_EQ(error.filePath, kPath);
    EXPECT_EQ(files().openHandles(), 0U);
  }
}

// --- handles

TEST_F(QSFileAttributesTest, KeepsNoHandleUnlessAskedTo) {
  files().addFile(kPath, "content");
  const auto closed = attributes();
  EXPECT_EQ(files().openHandles(), 0U);
  auto open = attributes(QSFileAttributesKeepHandleOpen);
  EXPECT_EQ(files().openHandles(), 1U);
  ASSERT_TRUE(open->readFileReturningDataWithError(nullptr));
  EXPECT_EQ(files().openHandles(), 1U);
  open.reset();
  EXPECT_EQ(files().openHandles(), 0U);
  ASSERT_TRUE(closed->readFileReturningDataWithError(nullptr));
  EXPECT_EQ(files().openHandles(), 0U);
}

TEST_F(QSFileAttributesTest, AKeptHandleReadsTheFileThatWasOpened) {
  files().addFile(kPath, "old content");
  const auto read = attributes(QSFileAttributesKeepHandleOpen);
  files().addFile(kPath, "new");
  EXPECT_EQ(read->readFileReturningDataWithError(nullptr)->text(), "old content");
  EXPECT_EQ(read->fileSize(), 11);
  files().remove(kPath);
  EXPECT_EQ(read->readFileReturningDataWithError(nullptr)->text(), "old content");
  EXPECT_EQ(sizes("open").size(), 1U);
}

TEST_F(QSFileAttributesTest, WithoutAKeptHandleAFileThatGrewIsReadWithItsNewSize) {
  const auto file = files().addFile(kPath, "short");
  const auto read = attributes();
  file->write("much longer");
  file->metadata.ownerID = 99;
  EXPECT_EQ(read->readFileReturningDataWithError(nullptr)->text(), "much longer");
  EXPECT_EQ(read->fileSize(), 11);
  EXPECT_EQ(read->fileUID(), 99U);
}

TEST_F(QSFileAttributesTest, AFailedReadLeavesTheAttributesOfTheLastGoodOne) {
  const auto file = files().addFile(kPath, "short");
  const auto read = attributes();
  file->write("much longer");
  file->metadata.ownerID = 99;
  file->mountFlagsError = EIO;
  expectReadError(*read, EIO);
  EXPECT_EQ(read->fileSize(), 5);
  EXPECT_EQ(read->fileUID(), 0U);
  files().remove(kPath);
  expectReadError(*read, ENOENT);
  EXPECT_EQ(read->fileSize(), 5);
  EXPECT_EQ(files().openHandles(), 0U);
}

TEST_F(QSFileAttributesTest, FollowsALinkUnlessAskedToOpenItself) {
  files().addFile("/var/target", "the target's content");
  files().addLink(kPath, "/var/target");
  EXPECT_EQ(attributes()->fileType(), 1U);
  EXPECT_EQ(attributes(QSFileAttributesOpenSymbolicLink)->fileType(), 5U);
  EXPECT_EQ(sizes("open"), (std::vector<std::uint64_t>{1, 0}));
  EXPECT_EQ(attributes()->readFileReturningDataWithError(nullptr)->text(), "the target's content");
}

TEST_F(QSFileAttributesTest, WorksOnAHandleOfTheCaller) {
  files().addDescriptor(9, files().addFile(kPath, "content"));
  const std::shared_ptr<FileHandle> handle = files().adopt(9, false);
  QSError error;
  auto read = QSFileAttributes::fileAttributesForHandle(handle, 0, &error);
  ASSERT_TRUE(read) << error.description();
  EXPECT_EQ(handle.use_count(), 2);
  EXPECT_EQ(read->readFileReturningDataWithError(&error)->text(), "content");
  read.reset();
  EXPECT_EQ(handle.use_count(), 1);
  EXPECT_THAT(done(), Not(Contains("open")));
}

TEST_F(QSFileAttributesTest, ErrorsOfACallersHandleHaveNoPath) {
  const auto file = files().addFile(kPath, "content");
  files().addDescriptor(9, file);
  file->metadataError = EIO;
  QSError error;
  EXPECT_FALSE(QSFileAttributes::fileAttributesForHandle(files().adopt(9, false), 0, &error));
  EXPECT_EQ(error.code, EIO);
  EXPECT_EQ(error.filePath, std::nullopt);
}

TEST_F(QSFileAttributesTest, RefusesToKeepACallersHandleBeforeAnythingIsRead) {
  files().addDescriptor(9, files().addFile(kPath, "content"));
  const std::shared_ptr<FileHandle> handle = files().adopt(9, false);
  for (const std::int64_t options : {std::int64_t{1}, std::int64_t{3}}) {
    try {
      (void)QSFileAttributes::fileAttributesForHandle(handle, options, nullptr);
      ADD_FAILURE() << "nothing was thrown";
    } catch (const std::invalid_argument& exception) {
      EXPECT_STREQ(
          exception.what(),
          "QSFileAttributesKeepHandleOpen cannot be passed when using initWithFileDescriptor.");
    }
  }
  EXPECT_EQ(done(), (std::vector<std::string>{"adopt"}));
}

// --- the way of reading

struct WayOfReading {
  std::uint64_t mountFlags;
  std::uint32_t protectionClass;
  const char* operation;
};

TEST_F(QSFileAttributesTest, MapsOnlyUnprotectedFilesOnLocalFixedVolumes) {
  const WayOfReading ways[] = {
      {kMountLocal, 0, "map"},
      {kMountLocal | 0xFFFFFFFFFFFFEDFF, 0, "map"},  // other flags do not matter
      {kMountLocal, 1, "read"},
      {kMountLocal, 2, "map"},
      {kMountLocal, 3, "map"},
      {kMountLocal, 4, "map"},
      {kMountLocal, 5, "map"},  // an unknown class
      {kMountLocal | kMountRemovable, 0, "read"},
      {kMountRemovable, 0, "read"},
      {0, 0, "read"},
      {0xFFFFFFFFFFFFEFFF, 0, "read"},
  };
  for (const WayOfReading& way : ways) {
    const auto file = files().addFile(kPath, "content");
    file->mountFlags = way.mountFlags;
    file->metadata.protectionClass = way.protectionClass;
    EXPECT_EQ(attributes()->readFileReturningDataWithError(nullptr)->text(), "content");
    EXPECT_EQ(done().back(), way.operation) << way.mountFlags << " " << way.protectionClass;
  }
}

TEST_F(QSFileAttributesTest, MapsTheWholeFileWithoutCopying) {
  files().addFile(kPath, "content");
  auto data = attributes()->readFileReturningDataWithError(nullptr);
  EXPECT_EQ(sizes("map"), (std::vector<std::uint64_t>{7}));
  EXPECT_EQ(files().openHandles(), 0U);
  EXPECT_EQ(files().mappings(), 1U);
  data.reset();
  EXPECT_EQ(files().mappings(), 0U);
}

TEST_F(QSFileAttributesTest, AMappedFileThatShrankKeepsItsRecordedLength) {
  files().addFile(kPath, "content")->shrinkTo(3);
  EXPECT_EQ(attributes()->readFileReturningDataWithError(nullptr)->text(),
            std::string("con\0\0\0\0", 7));
}

TEST_F(QSFileAttributesTest, AnEmptyFileCannotBeMapped) {
  files().addFile(kPath, "");
  expectReadError(*attributes(), EINVAL);
  expectReadError(*attributes(QSFileAttributesKeepHandleOpen), EINVAL);
}

TEST_F(QSFileAttributesTest, AFailedMappingIsAFailedRead) {
  files().addFile(kPath, "content")->mapError = ENODEV;
  expectReadError(*attributes(), ENODEV);
  EXPECT_EQ(sizes("read").size(), 0U);
}

class BlockwiseReadTest : public QSFileAttributesTest {
 protected:
  std::shared_ptr<MemoryFile> addRemoteFile(std::string content, std::uint64_t blockSize = 4096) {
    const auto file = files().addFile(kPath, std::move(content));
    file->mountFlags = 0;
    file->metadata.preferredBlockSize = blockSize;
    return file;
  }
};

TEST_F(BlockwiseReadTest, ReadsInThePreferredBlockSize) {
  const std::string content(2500, 'c');
  addRemoteFile(content, 1000);
  EXPECT_EQ(attributes()->readFileReturningDataWithError(nullptr)->text(), content);
  EXPECT_EQ(sizes("read"), (std::vector<std::uint64_t>{1000, 1000, 500}));
}

TEST_F(BlockwiseReadTest, ReadsAWholeNumberOfBlocksWithoutAnEmptyOne) {
  addRemoteFile(std::string(2000, 'c'), 1000);
  EXPECT_EQ(attributes()->readFileReturningDataWithError(nullptr)->length(), 2000U);
  EXPECT_EQ(sizes("read"), (std::vector<std::uint64_t>{1000, 1000}));
}

TEST_F(BlockwiseReadTest, TheBufferIsAlignedToPages) {
  addRemoteFile("content");
  const auto data = attributes()->readFileReturningDataWithError(nullptr);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(data->bytes().data()) %
                static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE)),
            0U);
}

TEST_F(BlockwiseReadTest, AnEmptyFileGivesEmptyDataAndReadsNothing) {
  addRemoteFile("");
  const auto data = attributes()->readFileReturningDataWithError(nullptr);
  ASSERT_TRUE(data.has_value());
  EXPECT_EQ(data->length(), 0U);
  EXPECT_TRUE(sizes("read").empty());
}

TEST_F(BlockwiseReadTest, AFileThatShrinksFails) {
  addRemoteFile(std::string(2500, 'c'), 1000)->shrinkTo(1500);
  expectReadError(*attributes(), ENODATA);
  addRemoteFile("c")->shrinkTo(0);
  expectReadError(*attributes(), ENODATA);
}

TEST_F(BlockwiseReadTest, AFileThatGrowsBehindAKeptHandleIsCutAtItsKnownSize) {
  const auto file = addRemoteFile("content");
  const auto read = attributes(QSFileAttributesKeepHandleOpen);
  file->write("content and more");
  EXPECT_EQ(read->readFileReturningDataWithError(nullptr)->text(), "content");
}

TEST_F(BlockwiseReadTest, ASecondReadThroughAKeptHandleStandsAtTheEnd) {
  addRemoteFile("content");
  const auto read = attributes(QSFileAttributesKeepHandleOpen);
  EXPECT_EQ(read->readFileReturningDataWithError(nullptr)->text(), "content");
  expectReadError(*read, ENODATA);
}

TEST_F(BlockwiseReadTest, AReadThatFailsIsMissingData) {
  addRemoteFile("content")->readError = EIO;
  expectReadError(*attributes(), ENODATA);
}

TEST_F(BlockwiseReadTest, ABlockSizeOfZeroStillEnds) {
  addRemoteFile("content", 0);
  EXPECT_EQ(attributes()->readFileReturningDataWithError(nullptr)->text(), "content");
}

TEST_F(BlockwiseReadTest, ASizeThatNoMemoryHoldsFails) {
  for (const std::int64_t size : {std::int64_t{1} << 60, std::int64_t{-1}}) {
    addRemoteFile("content")->metadata.dataLength = size;
    expectReadError(*attributes(), ENOMEM);
  }
}

class LinkReadTest : public QSFileAttributesTest {
 protected:
  std::shared_ptr<QSFileAttributes> link() { return attributes(QSFileAttributesOpenSymbolicLink); }
};

TEST_F(LinkReadTest, ALinkYieldsItsTargetTextAndItsOwnAttributes) {
  files().addFile("/var/target", "the target's content");
  const auto file = files().addLink(kPath, "/var/target");
  file->metadata.ownerID = 42;
  file->metadata.modificationTime = {3, 4};
  const auto read = link();
  EXPECT_EQ(read->readFileReturningDataWithError(nullptr)->text(), "/var/target");
  EXPECT_EQ(read->fileUID(), 42U);
  EXPECT_TRUE(read->fileModificationTime()->isEqual(QSTime(timespec{3, 4})));
  EXPECT_EQ(sizes("readLink"), (std::vector<std::uint64_t>{11}));
  EXPECT_TRUE(sizes("map").empty());
}

TEST_F(LinkReadTest, ADanglingLinkIsReadAsWell) {
  files().addLink(kPath, "nowhere");
  EXPECT_EQ(link()->readFileReturningDataWithError(nullptr)->text(), "nowhere");
  QSError error;
  EXPECT_FALSE(QSFileAttributes::fileAttributesForPath(kPath, 0, &error));
  EXPECT_EQ(error.code, ENOENT);
}

TEST_F(LinkReadTest, ATargetOfAnotherLengthFails) {
  files().addLink(kPath, "nowhere")->shrinkTo(3);
  expectReadError(*link(), EAGAIN);
}

TEST_F(LinkReadTest, ATargetThatCannotBeReadFails) {
  files().addLink(kPath, "nowhere")->readLinkError = EIO;
  expectReadError(*link(), EIO);
}

TEST_F(LinkReadTest, ATargetThatNoMemoryHoldsFails) {
  files().addLink(kPath, "nowhere")->metadata.dataLength = std::int64_t{1} << 60;
  expectReadError(*link(), ENOMEM);
}

}  // namespace
}  // namespace quillsift
