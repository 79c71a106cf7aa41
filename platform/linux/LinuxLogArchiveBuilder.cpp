#include "platform/linux/LinuxLogArchiveBuilder.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include "platform/FileDescriptor.h"
#include "platform/Text.h"
#include "platform/linux/BackgroundThread.h"
#include "platform/linux/ChildSpawning.h"
#include "platform/linux/Deadline.h"
#include "platform/linux/JournalExportMessages.h"
#include "platform/linux/LinuxChildProcess.h"
#include "platform/linux/ProcessExecutable.h"
#include "platform/linux/SchedulingClass.h"

namespace quillsift {

namespace {

using Kind = JournalExportMessage::Kind;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLongestFarewell{2};
constexpr const char* kProgramBesideExecutable = "quillsift/quillsift-journal-export";
constexpr const char* kJournalPlaces[] = {"/run/log/journal", "/var/log/journal"};

bool isDirectory(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Whether a packet or the end is there before the deadline.
bool waitForPacket(int socket, Clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd wanted{.fd = socket, .events = POLLIN, .revents = 0};
    const int result = ::poll(&wanted, 1, static_cast<int>(std::max<long>(left.count(), 0)));
    if (result > 0) return true;
    if (result == 0 || errno != EINTR) return false;
  }
}

std::string withoutFinalNewlines(std::string text) {
  while (text.ends_with('\n'))
    text.pop_back();
  return text;
}

// Ends and reaps the child. One that a broken disk holds cannot be ended for now: it is left to a
// thread that waits for it; where there is none to be had, it is waited for here.
void dismiss(std::shared_ptr<LinuxChildProcess> child, int socket) {
  child->kill();
  const auto deadline = deadlineAfter(kLongestFarewell);
  while (waitForPacket(socket, deadline)) {
    if (receiveJournalExportMessage(socket)) continue;
    if (errno == 0) return;  // its end is closed: it is gone, and the last reference reaps it
    break;
  }
  (void)startBackgroundThread([child = std::move(child)]() mutable { child.reset(); });
}

// One conversation with the child, until it has said its last word.
class Conversation {
 public:
  Conversation(int socket, const LogArchiveBuilder::Warning& warning,
               const LogArchiveBuilder::Member& member)
      : socket_(socket), warning_(warning), member_(member) {}

  // What the builder returns.
  int run(Clock::time_point deadline) {
    for (;;) {
      if (!waitForPacket(socket_, deadline)) {
        warning_("The journal is not readable in the time given");
        return ETIMEDOUT;
      }
      const auto message = receiveJournalExportMessage(socket_);
      if (!message) {
        const int code = errno == 0 ? EIO : errno;
        warning_(("Reading the journal failed: " + systemErrorText(code)).c_str());
        return code;
      }
      if (message->kind == Kind::end) return std::atoi(message->text.c_str());
      if (const int code = take(*message); code != 0) return code;
    }
  }

 private:
  int take(const JournalExportMessage& message) const {
    if (message.kind == Kind::member) {
      return member_(message.descriptor.get(), message.text.c_str());
    }
    warning_(withoutFinalNewlines(message.text).c_str());
    return 0;
  }

  const int socket_;
  const LogArchiveBuilder::Warning& warning_;
  const LogArchiveBuilder::Member& member_;
};

}  // namespace

LinuxLogArchiveBuilder::LinuxLogArchiveBuilder(std::shared_ptr<const PlatformTree> tree,
                                               std::string program, TimeLimits limits)
    : tree_(std::move(tree)), program_(std::move(program)), limits_(limits) {}

std::string LinuxLogArchiveBuilder::programBesideExecutable() {
  return fileBesideExecutable(kProgramBesideExecutable);
}

std::vector<std::string> LinuxLogArchiveBuilder::journalDirectories() const {
  std::vector<std::string> directories;
  for (const char* place : kJournalPlaces) {
    const auto path = tree_->resolve(place);
    if (path && isDirectory(*path)) directories.push_back(*path);
  }
  return directories;
}

int LinuxLogArchiveBuilder::build(const std::map<std::string, LogKindLimits>& limits,
                                  const Warning& warning, const Member& member) {
  LaunchRequest request{.executablePath = program_, .qos = currentQOS()};
  request.arguments.push_back(std::to_string(limits_.reading.count()));
  for (const auto& [kind, limit] : limits)
    request.arguments.push_back(kind + ":" + std::to_string(limit.size) + ":" +
                                std::to_string(limit.age));
  request.arguments.emplace_back("--");
  const std::vector<std::string> directories = journalDirectories();
  if (directories.empty()) return ENOSYS;
  request.arguments.insert(request.arguments.end(), directories.begin(), directories.end());

  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return errno;
  const FileDescriptor ours(ends[0]);
  FileDescriptor theirs(ends[1]);
  // Reaps the child however we leave.
  auto process = std::make_shared<LinuxChildProcess>(FileDescriptor());
  pid_t child = 0;
  const int code = spawnChild(program_, request, theirs.get(), &child);
  theirs.reset();
  if (code != 0) {
    warning(("Cannot start " + program_ + ": " + systemErrorText(code)).c_str());
    return code;
  }
  process->adopt(child);
  setChildSchedulingClass(child, request.qos);
  const int result = Conversation(ours.get(), warning, member).run(deadlineAfter(limits_.whole));
  dismiss(std::move(process), ours.get());
  return result;
}

}  // namespace quillsift
