#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <thread>

#include "client/Output.h"
#include "platform/FileDescriptor.h"

namespace quillsift {
namespace {

struct Pipe {
  explicit Pipe(int flags = 0) {
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC | flags), 0);
    read = FileDescriptor(ends[0]);
    write = FileDescriptor(ends[1]);
  }
  FileDescriptor read;
  FileDescriptor write;
};

std::string readAll(int descriptor) {
  std::string text;
  char buffer[4096];
  ssize_t length = 0;
  while ((length = ::read(descriptor, buffer, sizeof buffer)) > 0)
    text.append(buffer, static_cast<std::size_t>(length));
  return text;
}

TEST(OutputTest, WaitsForASlowReaderOfANonBlockingDescriptor) {
  Pipe pipe;
  ASSERT_EQ(::fcntl(pipe.write.get(), F_SETFL, O_NONBLOCK), 0);
  const std::string text(1 << 20, 'x');  // more than a pipe holds
  std::string received;
  std::thread reader([&] { received = readAll(pipe.read.get()); });
  Output output(pipe.write.get());
  output.write(text);
  pipe.write.reset();
  reader.join();
  EXPECT_EQ(output.error(), 0);
  EXPECT_EQ(received, text);
}

TEST(OutputTest, KeepsTheReasonWhenTheReaderIsGone) {
  std::signal(SIGPIPE, SIG_IGN);
  Pipe pipe;
  pipe.read.reset();
  Output output(pipe.write.get());
  output.write("x");
  EXPECT_EQ(output.error(), EPIPE);
  output.write("y");
  EXPECT_EQ(output.error(), EPIPE);
}

TEST(OutputTest, KeepsTheReasonWhenTheDescriptorIsNotOpenForWriting) {
  Pipe pipe;
  Output output(pipe.read.get());
  output.write("");
  EXPECT_EQ(output.error(), 0);
  output.write("x");
  EXPECT_EQ(output.error(), EBADF);
}

TEST(OutputTest, KeepsTheReasonWhenTheDiskIsFull) {
  FileDescriptor full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
  ASSERT_TRUE(full.valid());
  Output output(full.get());
  output.write("x");
  EXPECT_EQ(output.error(), ENOSPC);
}

}  // namespace
}  // namespace quillsift
