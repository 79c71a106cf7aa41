#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <thread>
#include <vector>

#include "platform/linux/EndpointSocket.h"
#include "tests/platform/linux/RawPeer.h"
#include "tests/platform/linux/ServiceFixture.h"

namespace quillsift::testing {
namespace {

struct stat statusOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status;
}

TEST(EndpointSocketTest, MakesTheDirectoryAndASocketForEverybodyWhateverTheUmask) {
  const ScratchDirectory directory;
  const std::string path = directory.path("run/socket");
  const mode_t before = ::umask(077);
  QSError error;
  const FileDescriptor socket = bindEndpointSocket(path, &error);
  ::umask(before);
  ASSERT_TRUE(socket.valid()) << error.description();
  EXPECT_EQ(statusOf(directory.path("run")).st_mode & 07777, 0755U);
  EXPECT_EQ(statusOf(path).st_mode & 07777, 0666U);
  EXPECT_TRUE(RawPeer(path).write("x"));
}

TEST(EndpointSocketTest, ReplacesASocketThatNobodyListensOn) {
  const ScratchDirectory directory;
  const std::string path = directory.path("socket");
  bindEndpointSocket(path, nullptr).reset();
  QSError error;
  const FileDescriptor again = bindEndpointSocket(path, &error);
  ASSERT_TRUE(again.valid()) << error.description();
  EXPECT_TRUE(RawPeer(path).write("x"));
}

TEST(EndpointSocketTest, LeavesASocketAloneThatSomebodyListensOn) {
  const ScratchDirectory directory;
  const std::string path = directory.path("socket");
  const FileDescriptor first = bindEndpointSocket(path, nullptr);
  QSError error;
  EXPECT_FALSE(bindEndpointSocket(path, &error).valid());
  EXPECT_EQ(error.code, EADDRINUSE);
  EXPECT_EQ(error.filePath, path);
  EXPECT_TRUE(RawPeer(path).write("x"));
}

TEST(EndpointSocketTest, LeavesAlonePlainFilesAndLinks) {
  const ScratchDirectory directory;
  const std::string file = directory.path("file");
  std::ofstream(file) << "precious";
  QSError error;
  EXPECT_FALSE(bindEndpointSocket(file, &error).valid());
  EXPECT_EQ(error.code, EADDRINUSE);
  EXPECT_EQ(statusOf(file).st_size, 8);
  const std::string link = directory.path("link");
  ASSERT_EQ(::symlink("file", link.c_str()), 0);
  EXPECT_FALSE(bindEndpointSocket(link, &error).valid());
  EXPECT_TRUE(S_ISLNK(statusOf(link).st_mode));
}

TEST(EndpointSocketTest, SaysWhyAPathCannotBeHad) {
  const ScratchDirectory directory;
  QSError error;
  EXPECT_FALSE(bindEndpointSocket(directory.path(std::string(200, 'x')), &error).valid());
  EXPECT_EQ(error.code, ENAMETOOLONG);
  EXPECT_FALSE(bindEndpointSocket(directory.path("a/b/socket"), &error).valid());
  EXPECT_EQ(error.code, ENOENT);
  EXPECT_FALSE(bindEndpointSocket("", &error).valid());
}

TEST(EndpointSocketTest, OfManyStartsAtOnceOneWins) {
  const ScratchDirectory directory;
  const std::string path = directory.path("socket");
  bindEndpointSocket(path, nullptr).reset();  // all of them find a stale one
  std::vector<FileDescriptor> sockets(8);
  std::vector<std::thread> threads;
  for (FileDescriptor& socket : sockets)
    threads.emplace_back([&] { socket = bindEndpointSocket(path, nullptr); });
  for (std::thread& thread : threads)
    thread.join();
  int winners = 0;
  for (const FileDescriptor& socket : sockets)
    winners += socket.valid() ? 1 : 0;
  EXPECT_EQ(winners, 1);
  EXPECT_TRUE(RawPeer(path).write("x"));
}

TEST(EndpointSocketTest, NothingIsPassedToThisProcess) {
  QSError error;
  EXPECT_FALSE(takePassedSocket(kTestService, &error).valid());
  EXPECT_FALSE(error);
}

}  // namespace
}  // namespace quillsift::testing
