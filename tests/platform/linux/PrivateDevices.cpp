#include "tests/platform/linux/PrivateDevices.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <fstream>

#include "platform/FileDescriptor.h"

namespace quillsift {

namespace {

enum ExitCode { kFine = 0, kBodyFailed = 1, kNoNamespace = 2, kSetUpFailed = 3 };

bool writeOnce(const char* path, const std::string& text) {
  return static_cast<bool>(std::ofstream(path) << text << std::flush);
}

// An ordinary user is given the namespaces together, and stays who it is in them.
bool enterNamespaces() {
  if (::unshare(CLONE_NEWNS) == 0) return true;
  const std::string user = std::to_string(::geteuid()), group = std::to_string(::getegid());
  return ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 &&
         writeOnce("/proc/self/uid_map", user + " " + user + " 1") &&
         writeOnce("/proc/self/setgroups", "deny") &&
         writeOnce("/proc/self/gid_map", group + " " + group + " 1");
}

bool enterPrivateDevices() {
  if (!enterNamespaces()) return false;
  return ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("none", "/dev", "tmpfs", 0, nullptr) == 0;
}

FileDescriptor listenAtDevLog() {
  FileDescriptor log(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "/dev/log"};
  if (::bind(log.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    log.reset();
  }
  return log;
}

// Hands the datagrams to the parent, each with a NUL behind it.
void forwardDatagrams(int log, int toParent) {
  std::array<char, 65536> datagram;
  for (;;) {
    const ssize_t length = ::recv(log, datagram.data(), datagram.size(), 0);
    if (length < 0) return;
    std::string record(datagram.data(), static_cast<std::size_t>(length));
    while (record.ends_with('\0'))
      record.pop_back();
    record += '\0';
    if (::write(toParent, record.data(), record.size()) < 0) ::_exit(kSetUpFailed);
  }
}

[[noreturn]] void runChild(bool withLog, const std::function<bool()>& body, int toParent) {
  if (!enterPrivateDevices()) ::_exit(kNoNamespace);
  ::closelog();
  const FileDescriptor log = withLog ? listenAtDevLog() : FileDescriptor();
  if (withLog && !log.valid()) ::_exit(kSetUpFailed);
  const bool fine = body();
  if (log.valid()) forwardDatagrams(log.get(), toParent);
  ::_exit(fine ? kFine : kBodyFailed);
}

std::vector<std::string> readRecords(int descriptor) {
  std::string bytes;
  std::array<char, 4096> part;
  for (ssize_t count = 0; (count = ::read(descriptor, part.data(), part.size())) > 0;)
    bytes.append(part.data(), static_cast<std::size_t>(count));
  std::vector<std::string> records;
  for (std::size_t start = 0; start < bytes.size();) {
    records.emplace_back(bytes.c_str() + start);
    start += records.back().size() + 1;
  }
  return records;
}

}  // namespace

std::optional<std::vector<std::string>> runWithPrivateDevices(bool withLog,
                                                              const std::function<bool()>& body) {
  int ends[2];
  if (::pipe(ends) != 0) return std::nullopt;
  const FileDescriptor reader(ends[0]);
  FileDescriptor writer(ends[1]);
  const pid_t child = ::fork();
  if (child == 0) runChild(withLog, body, writer.get());
  writer.reset();
  std::vector<std::string> records = readRecords(reader.get());
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == kNoNamespace) return std::nullopt;
  EXPECT_EQ(WEXITSTATUS(status), kFine);
  return records;
}

}  // namespace quillsift
