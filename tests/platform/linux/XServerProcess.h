#pragma once

#include <optional>
#include <string>

#include "tests/platform/linux/RunningProgram.h"

namespace quillsift::testing {

// An X server on a display that it chooses itself, killed at the end. Of all tests of this machine
// one at a time starts or ends a server.
class XServerProcess {
 public:
  // Waits until clients can connect. `command` is without what says where to listen: "Xvfb -screen
  // 0 640x480x24".
  explicit XServerProcess(const std::string& command);
  ~XServerProcess();
  XServerProcess(const XServerProcess&) = delete;
  XServerProcess& operator=(const XServerProcess&) = delete;

  bool runs() const { return !number_.empty(); }
  // ":99"
  std::string display() const { return ":" + number_; }
  std::string socket() const { return "/tmp/.X11-unix/X" + number_; }
  // Gives the socket one more name. It leads to this server and, when that has gone, to nobody,
  // whoever takes the number of the display then.
  void linkSocket(const std::string& path) const;

 private:
  std::optional<RunningProgram> server_;
  std::string number_;
  std::string kept_;  // a directory with a name of the socket that no other server touches
};

}  // namespace quillsift::testing
