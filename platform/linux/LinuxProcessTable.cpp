#include "platform/linux/LinuxProcessTable.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "platform/FileDescriptor.h"
#include "platform/Text.h"
#include "platform/linux/Deadline.h"
#include "platform/linux/FileReading.h"
#include "platform/linux/NumberedEntries.h"
#include "platform/linux/ProcessExecutable.h"

namespace quillsift {

namespace {

constexpr std::size_t kKeptNameLength = 15;
// Records beyond those that there are, when the length is asked for: processes come and go.
constexpr std::size_t kSlack = 16;

struct ProcessName {
  unsigned process;
  std::string name;
};

// None for a process that has ended meanwhile.
std::optional<std::string> nameOfProcess(const std::string& directory) {
  const auto kept = readSmallFile(directory + "/comm");
  if (!kept) return std::nullopt;
  const std::string_view line = kept->text();
  // The line end is the kernel's; the name can hold one of its own.
  return shortCommandName(std::string(line.substr(0, line.empty() ? 0 : line.size() - 1)),
                          executableInProcessDirectory(directory));
}

std::vector<ProcessName> processesIn(const std::string& directory, std::error_code* error) {
  std::vector<ProcessName> processes;
  for (const auto& [process, entry] : numberedEntries(directory, "", error)) {
    if (process == 0) continue;
    auto name = nameOfProcess(entry);
    if (name) processes.push_back({process, std::move(*name)});
  }
  return processes;
}

void writeRecord(char* record, const ProcessName& process) {
  std::memset(record, 0, kProcessRecordLength);
  const auto identifier = static_cast<std::int32_t>(process.process);
  std::memcpy(record + kProcessRecordIdentifier, &identifier, sizeof(identifier));
  process.name.copy(record + kProcessRecordName, kProcessNameLength - 1);
}

int failed(int error) {
  errno = error;
  return -1;
}

}  // namespace

std::string shortCommandName(const std::string& kept, const std::string& executable) {
  const std::string name = lastPathComponent(executable);
  if (kept.empty() || name.substr(0, kKeptNameLength) != kept) return kept;
  return name.substr(0, kProcessNameLength - 1);
}

LinuxProcessTable::LinuxProcessTable(std::shared_ptr<const PlatformTree> tree)
    : tree_(std::move(tree)) {}

int LinuxProcessTable::readAll(void* out, std::size_t* length) {
  const auto directory = tree_->resolve("/proc");
  if (!directory || ::access(directory->c_str(), R_OK | X_OK) != 0) return failed(ENOENT);
  std::error_code error;
  const std::vector<ProcessName> processes = processesIn(*directory, &error);
  if (error) return failed(error.value());
  const std::size_t needed = processes.size() * kProcessRecordLength;
  if (out == nullptr) {
    *length = needed + kSlack * kProcessRecordLength;
    return 0;
  }
  if (*length < needed) return failed(ENOMEM);
  *length = needed;
  auto* record = static_cast<char*>(out);
  for (const ProcessName& process : processes) {
    writeRecord(record, process);
    record += kProcessRecordLength;
  }
  return 0;
}

int LinuxProcessTable::sendSignal(pid_t process, int signal) {
  return ::kill(process, signal);
}

void LinuxProcessTable::waitForExit(pid_t process, std::chrono::milliseconds limit) {
  const auto deadline = deadlineAfter(limit);
  const FileDescriptor watched(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
  if (!watched.valid()) {
    // Without a descriptor for it (there is none left, say) the time is simply waited for.
    if (errno != ESRCH) std::this_thread::sleep_until(deadline);
    return;
  }
  pollfd ended{watched.get(), POLLIN, 0};
  for (;;) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (::poll(&ended, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0))) >= 0) return;
    if (errno != EINTR) return;
  }
}

}  // namespace quillsift
