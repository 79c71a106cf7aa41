#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tools/Host.h"
#include "tools/LineFilter.h"
#include "tools/Output.h"

namespace quillsift::tools {

struct ToolRequest {
  std::string program;                      // a name, looked for with Host::program
  std::vector<std::string> arguments = {};  // behind argv[0]
  std::chrono::milliseconds limit = std::chrono::seconds(20);
  LineFilter filter = {};             // none: the bytes as they come
  bool discardStandardError = false;  // else it is joined with standard output
  int silentExitCode = 0;             // a usual one that a report need not mention
  // A tool that prints more is ended: the collector holds what we print in memory.
  std::size_t mostBytes = std::size_t{64} * 1024 * 1024;
};

struct ToolResult {
  enum class End {
    notInstalled,
    notStarted,  // `code` is the errno
    exited,      // `code` is the exit code
    killed,      // `code` is the signal
    timedOut,
    tooMuch,  // it printed more than `mostBytes`, of which those stand
  };
  End end;
  int code = 0;
};

// Runs the host's own programs for a recipe, one after the other.
//
// Each gets a clean environment (LC_ALL=C, no pager, no colours), no input, a time limit, and dies
// with this process, however that ends. When run() returns nothing of the tool is left: helpers it
// put into the background are killed too, because the collector of our output waits for every
// holder of the pipe. For that the process that runs tools must have no children of its own; the
// first run makes it the reaper of its tools' orphans.
//
// A program that hangs in the kernel and cannot be killed is given up after kGrace. It holds no
// descriptor of ours but a pipe nobody reads any more.
class HostTool {
 public:
  // Between the polite end and the certain one, and for the certain one to take effect.
  static constexpr std::chrono::milliseconds kGrace = std::chrono::seconds(2);

  HostTool(const Host& host, Output& output) : host_(host), output_(output) {}

  ToolResult run(const ToolRequest& request);

  // Becomes the host's program: the output is its own, and stopping this process stops it.
  // `locale` is its LC_ALL. Returns only when that failed: the exit code, after one line.
  int become(const std::string& program, const std::vector<std::string>& arguments,
             bool discardStandardError = false, const char* locale = "C");

 private:
  struct Child;

  std::optional<Child> start(const std::string& path, const ToolRequest& request, int* error);
  bool pump(Child& child, LineSplitter* splitter);
  void give(Child& child, LineSplitter* splitter, std::string_view bytes);
  void killOrphans();
  void reap(pid_t process, int descriptor);

  const Host& host_;
  Output& output_;
  std::set<pid_t> abandoned_;  // children that did not die of SIGKILL in time
};

}  // namespace quillsift::tools
