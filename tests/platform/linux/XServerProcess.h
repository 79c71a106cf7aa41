#pragma once

#include <string>

#include "tests/platform/linux/RunningProgram.h"

namespace quillsift::testing {

// An X server on a display that it chooses itself, killed at the end.
class XServerProcess {
 public:
  // Waits until clients can connect. `command` is without what says where to listen: "Xvfb -screen
  // 0 640x480x24".
  explicit XServerProcess(const std::string& command);

  bool runs() const { return !number_.empty(); }
  // ":99"
  std::string display() const { return ":" + number_; }
  std::string socket() const { return "/tmp/.X11-unix/X" + number_; }

 private:
  RunningProgram server_;
  std::string number_;
};

}  // namespace quillsift::testing
