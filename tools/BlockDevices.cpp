#include "tools/BlockDevices.h"

#include <fcntl.h>
#include <unistd.h>

#include "tools/Files.h"
#include "tools/HostTool.h"

namespace quillsift::tools {

namespace {

// The permissions of a node are not all: a container may be refused the device behind it. A host
// tool asks, because a dying disk does not answer.
bool mayOpen(const Invocation& invocation, const std::vector<std::string>& nodes) {
  ToolRequest request{.program = "blockdev", .arguments = {"--getro"}};
  request.arguments.insert(request.arguments.end(), nodes.begin(), nodes.end());
  bool refused = false;
  request.filter = [&](std::string& line) {
    refused = refused || saysNotPermitted(line);
    return false;
  };
  (void)HostTool(invocation.host, invocation.output).run(request);
  return !refused;
}

}  // namespace

bool sawAllBlockDevices(const Invocation& invocation, Report& report) {
  const Host& host = invocation.host;
  std::vector<std::string> nodes;
  std::string withoutNode;
  bool mayRead = true;
  for (const std::string& name : namesIn(host.path("/sys/class/block")).value_or(Names{})) {
    const std::string node = host.path("/dev/" + name);
    const bool holdsAnything =
        readLine(host.path("/sys/class/block/" + name + "/size")).value_or("0") != "0";
    if (!exists(node)) {
      if (holdsAnything) withoutNode += " " + name;
    } else if (::faccessat(AT_FDCWD, node.c_str(), R_OK, AT_EACCESS) != 0) {
      mayRead = false;
    } else if (holdsAnything) {
      nodes.push_back(node);
    }
  }
  mayRead = mayRead && (nodes.empty() || mayOpen(invocation, nodes));
  if (!withoutNode.empty()) report.line("no device node for:" + withoutNode);
  if (!mayRead) report.notPermitted("reading the block devices");
  return mayRead && withoutNode.empty();
}

}  // namespace quillsift::tools
