#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "platform/FileDescriptor.h"

namespace quillsift::testing {

// A program found on the path, with its output (both streams) in our hands. Killed at the end if it
// still runs. Waits end after a minute, against hangs only.
class RunningProgram {
 public:
  explicit RunningProgram(const std::vector<std::string>& arguments,
                          const std::vector<std::string>& environment = {});
  ~RunningProgram();
  RunningProgram(const RunningProgram&) = delete;
  RunningProgram& operator=(const RunningProgram&) = delete;

  // Whether the output holds `text`; waits for it until the program has closed its output, or has
  // written nothing for so long.
  bool waitForOutput(const std::string& text,
                     std::chrono::milliseconds silence = std::chrono::seconds(60));
  // Reads to the end of the output and returns the exit status, -1 for anything but an exit.
  int wait();
  const std::string& output() const { return output_; }

 private:
  // False at the end of the output.
  bool readMore(std::chrono::milliseconds silence);

  pid_t process_ = -1;
  FileDescriptor stream_;
  std::string output_;
};

struct CommandResult {
  int status = -1;
  std::string output;
};

// Runs a command of the shell to its end.
CommandResult runCommand(const std::string& command);

}  // namespace quillsift::testing
