#include "tests/platform/linux/XServerProcess.h"

namespace quillsift::testing {

XServerProcess::XServerProcess(const std::string& command)
    // All that comes on the standard output is the display's number, once clients can connect.
    : server_(
          {"sh", "-c", "exec " + command + " -displayfd 1 -noreset -nolisten tcp 2>/dev/null"}) {
  if (server_.waitForOutput("\n"))
    number_ = server_.output().substr(0, server_.output().find('\n'));
}

}  // namespace quillsift::testing
