#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/linux/FileReading.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

TEST(FileReadingTest, ReadsMoreAndLessThanExpected) {
  const ScratchTree scratch;
  std::string content;
  for (int i = 0; i < 300'000; ++i)
    content += std::to_string(i % 10);
  const std::string path = scratch.write("file", content);
  for (const std::size_t expected : {std::size_t{0}, std::size_t{299'999}, std::size_t{300'000},
                                     std::size_t{300'001}, std::size_t{9'000'000}}) {
    const FileDescriptor file = openForReading(path);
    const auto data = readToEnd(file.get(), expected);
    ASSERT_TRUE(data);
    EXPECT_EQ(data->text(), content) << expected;
  }
}

TEST(FileReadingTest, ReadsFromTheCurrentPosition) {
  const ScratchTree scratch;
  const FileDescriptor file = openForReading(scratch.write("file", "0123456789"));
  ASSERT_EQ(::lseek(file.get(), 4, SEEK_SET), 4);
  EXPECT_EQ(readToEnd(file.get())->text(), "456789");
}

TEST(FileReadingTest, GivesEmptyDataForAnEmptyFile) {
  const ScratchTree scratch;
  const auto data = readSmallFile(scratch.write("file", ""));
  ASSERT_TRUE(data);
  EXPECT_EQ(data->length(), 0u);
}

TEST(FileReadingTest, ReadsFilesOfTheKernelThatTellNoSize) {
  const auto data = readSmallFile("/proc/version");
  ASSERT_TRUE(data);
  EXPECT_TRUE(data->text().starts_with("Linux version"));
}

TEST(FileReadingTest, FailsWithTheReason) {
  const ScratchTree scratch;
  EXPECT_FALSE(readSmallFile(scratch.at("missing")));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(readSmallFile(scratch.directory()));
  EXPECT_EQ(errno, EISDIR);
  EXPECT_FALSE(readSmallFile("/proc/self/mem"));
  EXPECT_EQ(errno, EIO);
}

TEST(FileReadingTest, ReadsNoMoreThanItMay) {
  const ScratchTree scratch;
  const std::string path = scratch.write("file", std::string(10'000, 'x'));
  for (const std::size_t expected : {std::size_t{0}, std::size_t{10'000}, std::size_t{90'000}}) {
    const auto whole = readToEnd(openForReading(path).get(), expected, 10'000);
    ASSERT_TRUE(whole) << expected;
    EXPECT_EQ(whole->length(), 10'000U) << expected;
    EXPECT_FALSE(readToEnd(openForReading(path).get(), expected, 9'999)) << expected;
    EXPECT_EQ(errno, EFBIG) << expected;
  }
  EXPECT_TRUE(readSmallFile(path, 10'000));
  EXPECT_FALSE(readSmallFile(path, 9'999));
  EXPECT_EQ(errno, EFBIG);
}

TEST(FileReadingTest, TakesNoEndlessFileForASmallOne) {
  EXPECT_FALSE(readSmallFile("/proc/self/pagemap"));
  EXPECT_EQ(errno, EFBIG);
}

TEST(FileReadingTest, FailsWhenMemoryCannotBeHad) {
#ifdef QUILLSIFT_SANITIZED
  GTEST_SKIP() << "a sanitizer ends the process where malloc would fail";
#endif
  const ScratchTree scratch;
  const FileDescriptor file = openForReading(scratch.write("file", "x"));
  EXPECT_FALSE(readToEnd(file.get(), std::size_t{1} << 60));
  EXPECT_EQ(errno, ENOMEM);
}

TEST(FileReadingTest, DoesNotWaitForTheWriterOfAFifo) {
  const ScratchTree scratch;
  const std::string path = scratch.at("fifo");
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  const FileDescriptor fifo = openForReading(path);
  ASSERT_TRUE(fifo.valid());
  EXPECT_EQ(readToEnd(fifo.get())->length(), 0u);
}

TEST(FileReadingTest, OpensCloseOnExec) {
  const FileDescriptor file = openForReading("/proc/version");
  EXPECT_TRUE(::fcntl(file.get(), F_GETFD) & FD_CLOEXEC);
}

}  // namespace
}  // namespace quillsift
