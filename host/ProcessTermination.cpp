// Stopping processes by their name.

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "host/QSUtilities.h"
#include "host/SystemLogging.h"
#include "platform/Platform.h"
#include "platform/Text.h"

namespace quillsift {

namespace {

constexpr const char* kKillErrorDomain = "QSKillProcessErrorDomain";
constexpr std::int64_t kNotAllKilled = 1;
constexpr std::chrono::milliseconds kGracePeriod{3000};

QSError posixError(int code, std::string description) {
  return {
      .domain = kPOSIXErrorDomain, .code = code, .localizedDescription = std::move(description)};
}

// That `what` could not be done to a process, for the reason in errno.
QSError signalError(const char* what, pid_t process) {
  const int code = errno;
  return posixError(
      code, formatted("Failed to %s process %d: %s", what, process, systemErrorText(code).c_str()));
}

bool grow(std::vector<char>* buffer, std::size_t length) {
  try {
    if (buffer->size() < length) buffer->resize(length);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  } catch (const std::length_error&) {
    return false;
  }
}

// Leaves the table, cut to whole records or less, in `table`.
bool readProcessTable(std::vector<char>* table, QSError* error) {
  ProcessTable& processes = *Platform::current().processTable;
  for (;;) {
    std::size_t length = 0;
    if (processes.readAll(nullptr, &length) != 0) {
      setError(error, posixError(errno, "Failed to get process list size via sysctl"));
      return false;
    }
    if (!grow(table, length)) {
      setError(error, posixError(ENOMEM, "Failed to allocate memory for process list"));
      return false;
    }
    length = table->size();
    if (length == 0) return true;
    if (processes.readAll(table->data(), &length) == 0) {
      table->resize(length);
      return true;
    }
    if (errno == ENOMEM) continue;  // it grew meanwhile
    setError(error, posixError(errno, "Failed to get process list via sysctl"));
    return false;
  }
}

// The processes of one name, stopped one after the other.
class Termination {
 public:
  void stop(pid_t process, const char* name) {
    ++matched_;
    if (processes_.sendSignal(process, SIGINT) != 0) {
      if (errno == ESRCH) {
        logToSystem(kLogInfo, "Process %d (%s) was already gone\n", process, name);
      } else {
        errors_.push_back(signalError("send SIGINT to", process));
      }
      return;
    }
    logToSystem(kLogInfo, "Sent SIGINT to process %d (%s)\n", process, name);
    processes_.waitForExit(process, kGracePeriod);
    if (processes_.sendSignal(process, 0) == 0) {
      killNow(process, name);
    } else if (errno == ESRCH) {
      logToSystem(kLogInfo, "Process %d (%s) exited cleanly after SIGINT\n", process, name);
      ++killed_;
    } else {
      errors_.push_back(signalError("check status of", process));
    }
  }

  bool result(const std::string& name, QSError* error) {
    if (matched_ == 0) {
      setError(error,
               posixError(ESRCH, formatted("No matching processes found for '%s'.", name.c_str())));
      return false;
    }
    if (killed_ == matched_) return true;
    setError(error, {.domain = kKillErrorDomain,
                     .code = kNotAllKilled,
                     .localizedDescription =
                         formatted("Killed %zu of %zu matching processes.", killed_, matched_),
                     .errors = std::move(errors_)});
    return false;
  }

 private:
  void killNow(pid_t process, const char* name) {
    if (processes_.sendSignal(process, SIGKILL) == 0) {
      logToSystem(kLogInfo, "Sent SIGKILL to process %d (%s) after SIGINT timeout\n", process,
                  name);
      ++killed_;
    } else {
      errors_.push_back(signalError("send SIGKILL to", process));
    }
  }

  ProcessTable& processes_ = *Platform::current().processTable;
  std::size_t matched_ = 0;
  std::size_t killed_ = 0;
  std::vector<QSError> errors_;
};

}  // namespace

bool QSUtilities::killProcessesWithName(const std::optional<std::string>& processName,
                                        QSError* errorPtr) {
  if (!processName) {
    setError(errorPtr, posixError(EINVAL, "processName is nil"));
    return false;
  }
  std::vector<char> table;
  if (!readProcessTable(&table, errorPtr)) return false;
  if (table.size() < kProcessRecordLength) {
    setError(errorPtr, posixError(ESRCH, "No processes found."));
    return false;
  }
  Termination termination;
  for (std::size_t at = 0; at + kProcessRecordLength <= table.size(); at += kProcessRecordLength) {
    std::int32_t process = 0;
    std::memcpy(&process, &table[at + kProcessRecordIdentifier], sizeof(process));
    char name[kProcessNameLength + 1] = {};
    std::memcpy(name, &table[at + kProcessRecordName], kProcessNameLength);
    if (std::strncmp(name, processName->c_str(), kProcessNameLength) == 0) {
      termination.stop(process, name);
    }
  }
  return termination.result(*processName, errorPtr);
}

}  // namespace quillsift
