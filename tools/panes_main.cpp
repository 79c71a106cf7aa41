// quillsift-paneinfo: the plan's window-server information tool. A program of its own, because it
// needs libraries that the others can do without.

#include <unistd.h>

#include <chrono>

#include "tools/Panes.h"
#include "tools/ProgramStart.h"

namespace quillsift::tools {
namespace {

// Beyond the limit that window servers have: should all else fail, this must not hold the session
// up.
constexpr unsigned kSecondsAtMost = 20;
static_assert(std::chrono::seconds(kSecondsAtMost) > kServersLimit);

int main(int count, char** arguments) {
  ::alarm(kSecondsAtMost);
  const Host host(platformTreeOf(startedPath(), kPaneProgram, executableFile()));
  Output output(STDOUT_FILENO);
  Invocation invocation{kPaneProgram, {arguments + 1, arguments + count}, host, output};
  return reportPanes(invocation);
}

}  // namespace
}  // namespace quillsift::tools

int main(int count, char** arguments) {
  return quillsift::tools::main(count, arguments);
}
