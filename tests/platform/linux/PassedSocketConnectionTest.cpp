#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <utility>

#include "platform/linux/EndpointSocket.h"
#include "platform/linux/LinuxRemoteServiceConnector.h"
#include "tests/platform/linux/ServiceFixture.h"

namespace quillsift::testing {
namespace {

using ::testing::HasSubstr;

// The service program with descriptors passed to it, as a service manager starts it.
class StartedService {
 public:
  StartedService(std::vector<FileDescriptor> passed, const std::string& names,
                 const std::string& fallback) {
    int input[2] = {-1, -1};
    int output[2] = {-1, -1};
    if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0) return;
    input_ = FileDescriptor(input[1]);
    output_ = FileDescriptor(output[0]);
    const FileDescriptor itsInput(input[0]);
    const FileDescriptor itsOutput(output[1]);
    const std::string count = std::to_string(passed.size());
    std::vector<int> high;
    for (const FileDescriptor& descriptor : passed)
      high.push_back(::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, 100));
    process_ = ::fork();
    if (process_ != 0) {
      for (const int descriptor : high)
        ::close(descriptor);
      return;
    }
    ::dup2(itsInput.get(), STDIN_FILENO);
    ::dup2(itsOutput.get(), STDOUT_FILENO);
    for (std::size_t i = 0; i < high.size(); ++i)
      ::dup2(high[i], static_cast<int>(3 + i));
    ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
    ::setenv("LISTEN_FDS", count.c_str(), 1);
    ::setenv("LISTEN_FDNAMES", names.c_str(), 1);
    ::execl(PASSED_SOCKET_SERVICE, PASSED_SOCKET_SERVICE, fallback.c_str(), nullptr);
    ::_exit(127);
  }
  ~StartedService() { end(); }
  StartedService(const StartedService&) = delete;
  StartedService& operator=(const StartedService&) = delete;

  // Its exit status, once it has no reason to go on.
  int end() {
    input_.reset();
    int status = 0;
    const pid_t process = std::exchange(process_, -1);
    if (process <= 0 || ::waitpid(process, &status, 0) != process) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // What it says when it is ready.
  std::string line() {
    std::string text;
    char byte = 0;
    while (::read(output_.get(), &byte, 1) == 1 && byte != '\n')
      text.push_back(byte);
    return text;
  }

 private:
  pid_t process_ = -1;
  FileDescriptor input_;
  FileDescriptor output_;
};

FileDescriptor blocking(FileDescriptor socket) {
  ::fcntl(socket.get(), F_SETFL, 0);
  return socket;
}

bool answersAt(const std::string& path) {
  LinuxRemoteServiceConnector connector;
  const auto client = connector.connect(path, testMethods(), testNotifications(), nullptr);
  return client && client->call("clear", {}, kLimit, nullptr);
}

bool exists(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

TEST(PassedSocketConnectionTest, TheSocketOfTheServiceNameIsTaken) {
  const ScratchDirectory directory;
  std::vector<FileDescriptor> passed;
  passed.push_back(bindEndpointSocket(directory.path("other"), nullptr));
  passed.push_back(blocking(bindEndpointSocket(directory.path("passed"), nullptr)));
  StartedService service(std::move(passed), "io.vantor.other:io.vantor.test",
                         directory.path("fallback"));
  ASSERT_EQ(service.line(), "listening");
  EXPECT_TRUE(answersAt(directory.path("passed")));
  EXPECT_TRUE(answersAt(directory.path("passed")));
  EXPECT_FALSE(exists(directory.path("fallback")));
  EXPECT_EQ(service.end(), 0);
}

TEST(PassedSocketConnectionTest, WithoutASocketOfThatNameOneIsBound) {
  const ScratchDirectory directory;
  std::vector<FileDescriptor> passed;
  passed.push_back(bindEndpointSocket(directory.path("other"), nullptr));
  StartedService service(std::move(passed), "io.vantor.other", directory.path("run/fallback"));
  ASSERT_EQ(service.line(), "listening");
  EXPECT_TRUE(answersAt(directory.path("run/fallback")));
  EXPECT_EQ(service.end(), 0);
}

TEST(PassedSocketConnectionTest, AnythingButAListeningStreamSocketIsRefused) {
  const ScratchDirectory directory;
  std::vector<FileDescriptor> passed;
  passed.emplace_back(::open("/dev/null", O_RDWR | O_CLOEXEC));
  StartedService service(std::move(passed), "io.vantor.test", directory.path("fallback"));
  EXPECT_THAT(service.line(), HasSubstr("cannot listen: POSIX"));
  EXPECT_FALSE(exists(directory.path("fallback")));
  EXPECT_EQ(service.end(), 1);
}

}  // namespace
}  // namespace quillsift::testing
