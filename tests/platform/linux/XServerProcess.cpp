#include "tests/platform/linux/XServerProcess.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "platform/FileDescriptor.h"

namespace quillsift::testing {

namespace {

constexpr const char* kLock = "/tmp/.quillsift-test-x-servers";

[[noreturn]] void giveUp(const std::string& what) {
  std::perror(what.c_str());
  std::abort();
}

// A server that starts tries one display after the other, and removes sockets on its way; one that
// ends removes the one of its number. So all tests take turns, whatever process they are in.
class Turn {
 public:
  Turn() : file_(::open(kLock, O_RDONLY | O_CLOEXEC)) {
    if (!file_.valid()) {
      file_ = FileDescriptor(::open(kLock, O_RDONLY | O_CREAT | O_CLOEXEC, 0666));
      (void)::fchmod(file_.get(), 0666);  // for other users too, whatever the mask; its owner can
    }
    while (::flock(file_.get(), LOCK_EX) != 0) {
      if (errno != EINTR) giveUp(kLock);
    }
  }

 private:
  FileDescriptor file_;
};

// Another name of what is at `path`, or a link to it where that is on another volume.
void linkTo(const std::string& path, const std::string& name) {
  if (::link(path.c_str(), name.c_str()) == 0) return;
  if (::symlink(path.c_str(), name.c_str()) != 0) giveUp(name);
}

}  // namespace

XServerProcess::XServerProcess(const std::string& command) {
  const Turn turn;
  // All that comes on the standard output is the display's number, once clients can connect.
  server_.emplace(std::vector<std::string>{
      "sh", "-c", "exec " + command + " -displayfd 1 -noreset -nolisten tcp 2>/dev/null"});
  if (!server_->waitForOutput("\n")) return;
  number_ = server_->output().substr(0, server_->output().find('\n'));
  std::string directory = "/tmp/quillsift-x-server-XXXXXX";
  if (::mkdtemp(directory.data()) == nullptr) giveUp(directory);
  kept_ = directory;
  linkTo(socket(), kept_ + "/socket");
}

XServerProcess::~XServerProcess() {
  const Turn turn;
  server_.reset();
  std::error_code ignored;
  if (!kept_.empty()) std::filesystem::remove_all(kept_, ignored);
}

void XServerProcess::linkSocket(const std::string& path) const {
  linkTo(kept_ + "/socket", path);
}

}  // namespace quillsift::testing
