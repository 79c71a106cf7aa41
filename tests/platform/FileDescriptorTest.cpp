#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <type_traits>
#include <utility>

#include "platform/FileDescriptor.h"

namespace quillsift {
namespace {

static_assert(!std::is_convertible_v<int, FileDescriptor>);
static_assert(!std::is_convertible_v<FileDescriptor, int>);
static_assert(!std::is_copy_constructible_v<FileDescriptor>);
static_assert(!std::is_copy_assignable_v<FileDescriptor>);

int openNull() {
  return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool isOpen(int descriptor) {
  return ::fcntl(descriptor, F_GETFD) != -1;
}

TEST(FileDescriptorTest, ClosesAtTheEndOfItsScope) {
  const int number = openNull();
  {
    const FileDescriptor descriptor(number);
    EXPECT_TRUE(descriptor.valid());
    EXPECT_EQ(descriptor.get(), number);
    EXPECT_TRUE(isOpen(number));
  }
  EXPECT_FALSE(isOpen(number));
}

TEST(FileDescriptorTest, HoldsNothingUnlessGivenADescriptor) {
  EXPECT_FALSE(FileDescriptor().valid());
  EXPECT_EQ(FileDescriptor().get(), -1);
  EXPECT_FALSE(FileDescriptor(-1).valid());
}

TEST(FileDescriptorTest, ReleaseLeavesTheDescriptorOpen) {
  const int number = openNull();
  {
    FileDescriptor descriptor(number);
    EXPECT_EQ(descriptor.release(), number);
    EXPECT_FALSE(descriptor.valid());
    EXPECT_EQ(descriptor.release(), -1);
  }
  EXPECT_TRUE(isOpen(number));
  ::close(number);
}

TEST(FileDescriptorTest, AMoveHandsTheDescriptorOn) {
  const int number = openNull();
  FileDescriptor first(number);
  FileDescriptor second(std::move(first));
  EXPECT_FALSE(first.valid());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(second.get(), number);

  const int other = openNull();
  FileDescriptor third(other);
  third = std::move(second);
  EXPECT_EQ(third.get(), number);
  EXPECT_FALSE(isOpen(other));
  EXPECT_TRUE(isOpen(number));
}

TEST(FileDescriptorTest, AMoveToItselfChangesNothing) {
  const int number = openNull();
  FileDescriptor descriptor(number);
  FileDescriptor& same = descriptor;
  descriptor = std::move(same);
  EXPECT_EQ(descriptor.get(), number);
  EXPECT_TRUE(isOpen(number));
}

TEST(FileDescriptorTest, ClosingKeepsErrno) {
  errno = EXDEV;
  { const FileDescriptor gone(1 << 20); }  // not open: the close fails
  EXPECT_EQ(errno, EXDEV);
  FileDescriptor descriptor(openNull());
  errno = EXDEV;
  descriptor.reset();
  EXPECT_EQ(errno, EXDEV);
  EXPECT_FALSE(descriptor.valid());
}

}  // namespace
}  // namespace quillsift
