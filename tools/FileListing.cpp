// /bin/ls: a whole directory tree with the attributes and flags that the host's ls does not show.

#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <memory>

#include "tools/ExitCodes.h"
#include "tools/Files.h"
#include "tools/HostListing.h"
#include "tools/Recipe.h"
#include "tools/Report.h"

namespace quillsift::tools {

namespace {

// A whole volume takes seconds; the collector gives its volumes a minute.
constexpr std::chrono::seconds kListingLimit{60};
constexpr std::size_t kLongestListing = std::size_t{256} * 1024 * 1024;

// Where a link leads: the host's ls would list the link.
std::string behindLinks(const std::string& path) {
  const std::unique_ptr<char, void (*)(void*)> real(::realpath(path.c_str(), nullptr), std::free);
  return real ? real.get() : path;
}

int listWithAttributes(Invocation& invocation, const std::string& planDirectory) {
  const auto found = invocation.host.resolved(planDirectory);
  if (!found) {
    return lineAndExit(invocation, "ls: no " + planDirectory + " on this system", 2);
  }
  const std::string directory = behindLinks(*found);
  const int listing =
      listingOf(invocation, {.program = "ls",
                             .arguments = {"-laR", "--time-style=full-iso", "--", directory},
                             .limit = kListingLimit,
                             .mostBytes = kLongestListing});
  if (!invocation.host.program("ls") || !exists(directory)) return listing;

  invocation.output.write("\n");
  Report report(invocation);
  // Both complain of every file system that has no such thing.
  report.tool({.program = "lsattr",
               .arguments = {"-Ra", directory},
               .limit = kListingLimit,
               .discardStandardError = true,
               .mostBytes = kLongestListing});
  report.tool({.program = "getfattr",
               .arguments = {"-R", "-h", "-P", "-d", "-m", "-", directory},
               .limit = kListingLimit,
               .discardStandardError = true,
               .mostBytes = kLongestListing});
  const int rest = report.finish();
  return listing != 0 ? listing : rest;
}

}  // namespace

int listFiles(Invocation& invocation) {
  if (invocation.arguments.size() == 2 && invocation.arguments[0] == "-la@OR") {
    return listWithAttributes(invocation, invocation.arguments[1]);
  }
  return listingOf(invocation, {.program = "ls", .arguments = invocation.arguments});
}

}  // namespace quillsift::tools
