// quillsift-journal-export: reads the journal for the daemon, in a process of its own, so that
// neither a damaged journal nor one that takes for ever can do the daemon any harm. What it finds
// it hands over as files in memory, through the socket that is its standard output.
//
//   quillsift-journal-export SECONDS KIND:BYTES:SECONDS... -- DIRECTORY...
//
// SECONDS is how long it may read. What it has by then it hands over.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/linux/JournalExport.h"
#include "platform/linux/JournalExportMessages.h"
#include "platform/linux/LostPages.h"

namespace quillsift {
namespace {

constexpr int kExitUnknownArguments = 64;
// What one damaged journal after another has to say is soon known.
constexpr std::size_t kMostWarnings = 50;
constexpr unsigned kSecondsToHandOver = 60;

struct Request {
  std::chrono::seconds time{};
  std::map<std::string, LogKindLimits> limits;
  std::vector<std::string> directories;
};

std::optional<std::int64_t> numberIn(std::string_view text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

// "KIND:BYTES:SECONDS"
bool addLimit(std::string_view text, Request* request) {
  const std::size_t first = text.find(':');
  const std::size_t second = first == text.npos ? text.npos : text.find(':', first + 1);
  if (second == text.npos) return false;
  const auto size = numberIn(text.substr(first + 1, second - first - 1));
  const auto age = numberIn(text.substr(second + 1));
  if (!size || !age) return false;
  request->limits[std::string(text.substr(0, first))] = {.size = *size, .age = *age};
  return true;
}

std::optional<Request> parse(const std::vector<std::string_view>& arguments) {
  Request request;
  const auto time = arguments.empty() ? std::nullopt : numberIn(arguments[0]);
  if (!time) return std::nullopt;
  request.time = std::chrono::seconds(*time);
  std::size_t i = 1;
  while (i < arguments.size() && arguments[i] != "--") {
    if (!addLimit(arguments[i++], &request)) return std::nullopt;
  }
  for (++i; i < arguments.size(); ++i)
    request.directories.emplace_back(arguments[i]);
  if (request.limits.empty() || request.directories.empty()) return std::nullopt;
  return request;
}

// The daemon's end of the conversation. Any thread.
class Daemon {
 public:
  explicit Daemon(int socket) : socket_(socket) {}

  void warn(const std::string& text) {
    const std::lock_guard lock(mutex_);
    if (++warnings_ < kMostWarnings) send({.kind = Kind::warning, .text = text});
    if (warnings_ == kMostWarnings) send({.kind = Kind::warning, .text = "More warnings left out"});
  }
  // False when memory for it is lacking.
  bool give(const std::string& path, std::string_view text) {
    FileDescriptor file = sealedFile(path, text);
    if (!file.valid()) return false;
    send({.kind = Kind::member, .text = path, .descriptor = std::move(file)});
    return true;
  }
  void end(int code) { send({.kind = Kind::end, .text = std::to_string(code)}); }

 private:
  using Kind = JournalExportMessage::Kind;

  void send(const JournalExportMessage& message) const {
    // Nobody there to listen: nothing is left to do.
    if (sendJournalExportMessage(socket_, message) != 0) std::_Exit(EXIT_FAILURE);
  }

  // A file in memory that nobody can change any more; invalid with errno set on failure.
  static FileDescriptor sealedFile(const std::string& name, std::string_view text) {
    FileDescriptor file(::memfd_create(name.c_str(), MFD_CLOEXEC | MFD_ALLOW_SEALING));
    while (file.valid() && !text.empty()) {
      const ssize_t count = ::write(file.get(), text.data(), text.size());
      if (count < 0 && errno != EINTR) return FileDescriptor();
      if (count > 0) text.remove_prefix(static_cast<std::size_t>(count));
    }
    if (!file.valid()) return file;
    constexpr int kSeals = F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;
    constexpr mode_t kMode = 0640;  // that of the journal's own files
    if (::fchmod(file.get(), kMode) != 0 || ::fcntl(file.get(), F_ADD_SEALS, kSeals) != 0 ||
        ::lseek(file.get(), 0, SEEK_SET) != 0) {
      return FileDescriptor();
    }
    return file;
  }

  const int socket_;
  std::mutex mutex_;
  std::size_t warnings_ = 0;
};

// Reading on a thread of its own, which may be stuck for good when its time is over.
class Reading {
 public:
  Reading(const Request& request, Daemon* daemon)
      : journal_(request.limits, JournalExport::Now::ofThisMachine()),
        thread_([this, &request, daemon] { read(request, daemon); }) {
    thread_.detach();
  }

  const JournalExport& journal() const { return journal_; }
  // The result, or none when the time was over first.
  std::optional<int> wait(std::chrono::seconds limit) {
    if (limit.count() <= 0) return std::nullopt;  // it is over already
    std::unique_lock lock(mutex_);
    ended_.wait_for(lock, limit, [this] { return result_.has_value(); });
    return result_;
  }

 private:
  void read(const Request& request, Daemon* daemon) {
    int result = ENOMEM;
    try {
      result = journal_.read(request.directories,
                             [daemon](const std::string& text) { daemon->warn(text); });
    } catch (const std::bad_alloc&) {
      daemon->warn("Reading the journal ended early: out of memory");
    }
    const std::lock_guard lock(mutex_);
    result_ = result;
    ended_.notify_all();
  }

  JournalExport journal_;
  std::mutex mutex_;
  std::condition_variable ended_;
  std::optional<int> result_;
  std::thread thread_;
};

int run(const Request& request, Daemon* daemon, Reading* reading) {
  std::optional<int> result = reading->wait(request.time);
  if (!result) {
    daemon->warn("Reading the journal took too long; older entries are missing");
    result = 0;
  }
  if (pagesWereLost()) daemon->warn("A journal file was cut while it was read");
  reading->journal().visitTexts([&](const char* kind, std::string_view text) {
    if (!daemon->give(std::string(kind) + ".export", text)) result = errno;
  });
  return *result;
}

// As many files as we may have: every journal file is held open.
void liftDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  (void)::setrlimit(RLIMIT_NOFILE, &limit);
}

int main(int count, char** arguments) {
  const auto request = parse({arguments + 1, arguments + count});
  if (!request) {
    std::fputs(
        "usage: quillsift-journal-export SECONDS KIND:BYTES:SECONDS... -- DIRECTORY...\n"
        "Started by the daemon, with a socket as standard output.\n",
        stderr);
    return kExitUnknownArguments;
  }
  fillLostPagesWithZeros();
  liftDescriptorLimit();
  // Should even handing over get stuck, with nobody left who ends us.
  ::alarm(static_cast<unsigned>(request->time.count()) + kSecondsToHandOver);
  Daemon daemon(STDOUT_FILENO);
  Reading reading(*request, &daemon);
  daemon.end(run(*request, &daemon, &reading));
  // At once, destroying nothing: the thread that reads may still be at it.
  std::_Exit(EXIT_SUCCESS);
}

}  // namespace
}  // namespace quillsift

int main(int count, char** arguments) {
  return quillsift::main(count, arguments);
}
