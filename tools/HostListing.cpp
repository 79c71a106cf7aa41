#include "tools/HostListing.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tools/ExitCodes.h"

namespace quillsift::tools {

namespace {

int lineOfFailure(Invocation& invocation, const ToolRequest& request, const std::string& what,
                  int exitCode) {
  return lineAndExit(invocation, request.program + what, exitCode);
}

}  // namespace

int listingOf(Invocation& invocation, const ToolRequest& request) {
  bool refused = false;
  ToolRequest watched = request;
  watched.filter = [&](std::string& line) {
    refused = refused || saysNotPermitted(line);
    return !request.filter || request.filter(line);
  };
  const ToolResult result = HostTool(invocation.host, invocation.output).run(watched);
  switch (result.end) {
    case ToolResult::End::notInstalled:
      return lineOfFailure(invocation, request, " not installed", kExitNotHere);
    case ToolResult::End::notStarted:
      return lineOfFailure(invocation, request,
                           std::string(" could not be started: ") + std::strerror(result.code),
                           kExitNotHere);
    case ToolResult::End::killed:
      return lineOfFailure(invocation, request, ": ended by signal " + std::to_string(result.code),
                           kExitNotHere);
    case ToolResult::End::timedOut:
      return lineOfFailure(invocation, request,
                           ": stopped after " + std::to_string(request.limit.count() / 1000) + " s",
                           kExitTimeLimit);
    case ToolResult::End::tooMuch:
      return lineOfFailure(invocation, request,
                           ": cut after " + std::to_string(request.mostBytes) + " bytes",
                           kExitTimeLimit);
    case ToolResult::End::exited:
      break;
  }
  return result.code != 0 && refused ? kExitNotPermitted : result.code;
}

int listedInPart(Invocation& invocation, const std::string& what) {
  return lineAndExit(invocation, "not permitted to this user: " + what,
                     ::geteuid() == 0 ? 0 : kExitNotPermitted);
}

bool maySeeAllProcesses(const Host& host) {
  char program[1];
  // Root may see what anybody may: what the kernel still refuses belongs to no listing.
  if (::geteuid() == 0) return true;
  return ::readlink(host.path("/proc/1/exe").c_str(), program, sizeof program) >= 0 ||
         (errno != EACCES && errno != EPERM);
}

}  // namespace quillsift::tools
