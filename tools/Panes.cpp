#include "tools/Panes.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "tools/Descriptor.h"
#include "tools/ExitCodes.h"
#include "tools/Files.h"
#include "tools/PropertyListWriter.h"
#include "tools/SeparateWork.h"
#include "tools/WindowServers.h"
#include "tools/XWindows.h"

namespace quillsift::tools {

namespace {

constexpr const char* kDirectory = "/private/tmp";
constexpr const char* kFileName = "PaneServer.external.pinfo.plist";

// Each server has a process of its own to itself, as its user: what one of them does wrong costs
// its own entry only.
std::unique_ptr<SeparateWork> startAsking(const WindowServer& server, const Host& host) {
  constexpr std::size_t kLevel = 1;  // in the array
  return std::make_unique<SeparateWork>(server.account, [&](Output& output) {
    PropertyListWriter list(output, kLevel);
    return writeWindowsOf(server, host, &list);
  });
}

// The number of servers in the list; -1 when the list could not be written as a whole.
int writeList(int file, const Host& host, const std::vector<WindowServer>& servers,
              std::chrono::milliseconds limit) {
  const auto end = SeparateWork::Clock::now() + limit;
  std::vector<std::unique_ptr<SeparateWork>> asked;
  asked.reserve(servers.size());
  for (const WindowServer& server : servers)
    asked.push_back(startAsking(server, host));
  Output output(file);
  PropertyListWriter list(output);
  int count = 0;
  list.beginArray();
  for (const auto& work : asked) {
    const auto answer = work->result(end);
    if (!answer) continue;
    list.part(*answer);
    ++count;
  }
  list.endArray();
  list.finish();
  output.flush();
  struct stat status {};
  const bool whole =
      ::fstat(file, &status) == 0 && static_cast<std::size_t>(status.st_size) == output.size();
  return whole ? count : -1;
}

int cannotWrite(Invocation& invocation, const std::string& path) {
  return lineAndExit(invocation, "cannot write " + path + ": " + std::strerror(errno),
                     kExitNotHere);
}

}  // namespace

int reportPanes(Invocation& invocation, std::chrono::milliseconds limit) {
  if (!invocation.arguments.empty()) return unknownArguments(invocation);
  const auto directory = invocation.host.resolved(kDirectory);
  if (!directory) return lineAndExit(invocation, "no place for the file", kExitNotHere);
  const std::string path = pathIn(*directory, kFileName);
  const std::string unfinished = path + ".new";
  // Whoever reads the file must not find that of another day.
  (void)::unlink(path.c_str());
  (void)::unlink(unfinished.c_str());

  const std::vector<WindowServer> servers = windowServers(invocation.host);
  if (servers.empty()) return lineAndExit(invocation, "no window server", kExitNotHere);
  const Descriptor file(
      ::open(unfinished.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file.valid()) return cannotWrite(invocation, unfinished);
  const int count = writeList(file.get(), invocation.host, servers, limit);
  if (count > 0 && ::rename(unfinished.c_str(), path.c_str()) == 0) return 0;
  const int code = errno;
  (void)::unlink(unfinished.c_str());
  if (count == 0) return lineAndExit(invocation, "no window server lets us in", kExitNotHere);
  errno = code;
  return cannotWrite(invocation, path);
}

}  // namespace quillsift::tools
