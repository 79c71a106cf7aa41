#pragma once

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/ProcessTable.h"

namespace quillsift {

// A table of processes that a test fills. Set up before use; one thread at a time.
class FakeProcessTable : public ProcessTable {
 public:
  struct Process {
    pid_t identifier = 0;
    std::string name;
    bool endsOnInterrupt = true;
    std::map<int, int> errors = {};  // errno by signal, instead of what would happen
  };

  std::vector<Process> processes;
  std::optional<std::size_t> length;  // what the table claims to need, instead of the truth
  int lengthError = 0;                // errno of asking for the length
  std::vector<int> readErrors;        // errno of the first reads; 0 for one that goes well
  std::size_t surplusBytes = 0;       // behind the last whole record
  std::vector<std::string> calls;     // such as "kill 7 2", "wait 7 3000"

  int readAll(void* out, std::size_t* size) override {
    const std::size_t needed = processes.size() * kProcessRecordLength + surplusBytes;
    if (out == nullptr) {
      calls.emplace_back("length");
      *size = length.value_or(needed);
      return failed(lengthError);
    }
    calls.emplace_back("read");
    if (!readErrors.empty()) {
      const int error = readErrors.front();
      readErrors.erase(readErrors.begin());
      if (error != 0) return failed(error);
    }
    if (*size < needed) return failed(ENOMEM);
    *size = needed;
    auto* bytes = static_cast<char*>(out);
    std::memset(bytes, 0, needed);
    for (const Process& process : processes) {
      std::memcpy(bytes + kProcessRecordIdentifier, &process.identifier, sizeof(pid_t));
      std::memcpy(bytes + kProcessRecordName, process.name.data(),
                  std::min(process.name.size(), kProcessNameLength - 1));
      bytes += kProcessRecordLength;
    }
    return 0;
  }

  int sendSignal(pid_t identifier, int signal) override {
    calls.push_back("kill " + std::to_string(identifier) + " " + std::to_string(signal));
    for (auto process = processes.begin(); process != processes.end(); ++process) {
      if (process->identifier != identifier) continue;
      if (const auto error = process->errors.find(signal); error != process->errors.end()) {
        return failed(error->second);
      }
      if (signal == SIGKILL || (signal == SIGINT && process->endsOnInterrupt)) {
        processes.erase(process);
      }
      return 0;
    }
    return failed(ESRCH);
  }

  void waitForExit(pid_t identifier, std::chrono::milliseconds limit) override {
    calls.push_back("wait " + std::to_string(identifier) + " " + std::to_string(limit.count()));
  }

 private:
  static int failed(int error) {
    if (error == 0) return 0;
    errno = error;
    return -1;
  }
};

}  // namespace quillsift
