// The plan's programs that this system has too, under other names or with other flags.

#include <algorithm>
#include <cstddef>
#include <cstdlib>

#include "tools/ExitCodes.h"
#include "tools/Files.h"
#include "tools/HostListing.h"
#include "tools/Recipe.h"

namespace quillsift::tools {

namespace {

// The collector waits half a minute for its first programs.
constexpr std::chrono::seconds kProcessListLimit{25};
// A file system that does not answer never will.
constexpr std::chrono::seconds kSpaceLimit{10};
// A whole volume takes seconds; the collector gives its volumes a minute.
constexpr std::chrono::seconds kVolumeLimit{60};
constexpr std::size_t kLongestVolumeListing = std::size_t{256} * 1024 * 1024;

// A directory that the plan names is the tree's if the tree has it. What the tree denies is left
// for the host's program to miss.
std::string place(const Invocation& invocation, const std::string& planDirectory) {
  return invocation.host.resolved(planDirectory).value_or(planDirectory);
}

}  // namespace

int listOpenFiles(Invocation& invocation) {
  const int exitCode =
      listingOf(invocation,
                {.program = "lsof", .arguments = invocation.arguments, .limit = kProcessListLimit});
  const bool isListing = exitCode == 0 || exitCode == 1;  // it minds what it did not find
  if (!isListing || maySeeAllProcesses(invocation.host)) return exitCode;
  return listedInPart(invocation, "the open files of other users' processes");
}

// The plan's thread list asks with M, which the host's ps takes for another option and dies of
// together with the column wchan. H lists threads; their ids are columns of their own here.
int listProcesses(Invocation& invocation) {
  std::vector<std::string> arguments = invocation.arguments;
  if (!arguments.empty() && arguments.front() == "axMwww") {
    arguments.front() = "axHwww";
    arguments.insert(arguments.begin() + 1, {"-o", "pid,lwp"});
  }
  const int exitCode =
      listingOf(invocation, {.program = "ps", .arguments = arguments, .limit = kProcessListLimit});
  const bool tellsWaits = std::any_of(arguments.begin(), arguments.end(), [](const auto& word) {
    return word.find("wchan") != std::string::npos;
  });
  if (exitCode != 0 || !tellsWaits || maySeeAllProcesses(invocation.host)) return exitCode;
  return listedInPart(invocation, "where other users' processes wait");
}

// One mounted file system whose server is gone holds up the whole list, so then those of this
// machine have to do.
int listSpace(Invocation& invocation) {
  // The name of a file system on the network can have a password in it.
  ToolRequest request{.program = "df",
                      .arguments = invocation.arguments,
                      .limit = kSpaceLimit,
                      .filter = maskSecrets()};
  const int exitCode = listingOf(invocation, request);
  if (exitCode != kExitTimeLimit) return exitCode;
  invocation.output.line("A mounted file system does not answer. The local ones:");
  request.arguments.insert(request.arguments.begin(), "--local");
  (void)listingOf(invocation, request);
  return kExitTimeLimit;
}

// The archive is the output: one line of complaint in it would make it unreadable, so those are
// dropped. Names are bytes of UTF-8 more often than not, and the archive says so.
int archiveFiles(Invocation& invocation) {
  std::vector<std::string> arguments = {"--xattrs", "--acls"};
  arguments.insert(arguments.end(), invocation.arguments.begin(), invocation.arguments.end());
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    if (arguments[i - 1] == "-C") arguments[i] = place(invocation, arguments[i]);
  }
  return HostTool(invocation.host, invocation.output)
      .become("tar", arguments, /*discardStandardError=*/true, "C.UTF-8");
}

// A whole volume as a compressed archive: "archive -x -d DIR -a tidepack".
int archiveVolume(Invocation& invocation) {
  const auto& arguments = invocation.arguments;
  if (arguments.size() != 6 ||
      !invocation.hasArguments({"archive", "-x", "-d", arguments[3], "-a", "tidepack"})) {
    return unknownArguments(invocation);
  }
  const auto directory = invocation.host.resolved(arguments[3]);
  if (!directory || !isDirectory(*directory)) {
    return lineAndExit(invocation, "no such directory: " + arguments[3], kExitNotHere);
  }
  // Without it the archive would be a complaint of tar's.
  if (!invocation.host.program("zstd")) {
    return lineAndExit(invocation, "zstd not installed", kExitNotHere);
  }
  return HostTool(invocation.host, invocation.output)
      .become(
          "tar",
          {"--xattrs", "--acls", "--one-file-system", "--zstd", "-C", *directory, "-cf", "-", "."},
          /*discardStandardError=*/true, "C.UTF-8");
}

// "-Px DIR -ls": no link followed, no other file system entered.
int findFiles(Invocation& invocation) {
  std::vector<std::string> arguments = invocation.arguments;
  if (arguments.size() == 3 && arguments[0] == "-Px" && arguments[2] == "-ls") {
    arguments = {"-P", place(invocation, arguments[1]), "-xdev", "-ls"};
  }
  return listingOf(invocation, {.program = "find",
                                .arguments = arguments,
                                .limit = kVolumeLimit,
                                .mostBytes = kLongestVolumeListing});
}

}  // namespace quillsift::tools
