// /usr/sbin/sysctl: all kernel settings but those that are keys.

#include "tools/ExitCodes.h"
#include "tools/HostListing.h"
#include "tools/Recipe.h"

namespace quillsift::tools {

namespace {

// Keys of the network stack: of fast-open cookies, of stable addresses, of the hash that spreads
// packets.
bool isPublic(std::string_view line) {
  const std::string_view name = line.substr(0, line.find(" ="));
  for (const std::string_view secret : {"_key", ".stable_secret"}) {
    if (name.ends_with(secret)) return false;
  }
  return true;
}

}  // namespace

int listSystemControls(Invocation& invocation) {
  int refused = 0;
  const auto filter = [&](std::string& line) {
    const bool isRefusal = line.starts_with("sysctl: permission denied on key ");
    refused += isRefusal ? 1 : 0;
    return !isRefusal && isPublic(line);
  };
  const int exitCode = listingOf(
      invocation, {.program = "sysctl", .arguments = invocation.arguments, .filter = filter});
  if (refused == 0 || exitCode == kExitTimeLimit) return exitCode;
  return listedInPart(invocation, std::to_string(refused) + " settings");
}

}  // namespace quillsift::tools
