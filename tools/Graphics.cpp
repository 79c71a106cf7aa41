// pixdiag: graphics devices, what is connected to them, and what they show.

#include <cerrno>

#include "tools/ExitCodes.h"
#include "tools/Files.h"
#include "tools/Recipe.h"
#include "tools/Report.h"

namespace quillsift::tools {

namespace {

constexpr const char* kDevices = "/sys/class/drm";
constexpr const char* kStates = "/sys/kernel/debug/dri";
constexpr std::size_t kStateLimit = std::size_t{1024} * 1024;

// What tells one display or card from another of its kind is not for this listing.
LineFilter dropSerialNumbers() {
  return dropLinesWith({"serial number", "serial", "container id"});
}

bool isCard(std::string_view name) {
  constexpr std::string_view kBeginning = "card";
  return name.starts_with(kBeginning) && name.size() > kBeginning.size() &&
         name.find_first_not_of("0123456789", kBeginning.size()) == std::string_view::npos;
}

// "card0-HDMI-A-1"
bool isConnector(std::string_view name) {
  const std::size_t hyphen = name.find('-');
  return hyphen != std::string_view::npos && isCard(name.substr(0, hyphen));
}

void showConnector(Invocation& invocation, Report& report, const std::string& name) {
  const std::string directory = std::string(kDevices) + "/" + name;
  report.title(name);
  for (const char* fact : {"status", "enabled", "dpms"}) {
    const auto value = readLine(invocation.host.path(directory + "/" + fact));
    if (value) report.line(std::string(fact) + ": " + *value);
  }
  const std::string modes = readFile(invocation.host.path(directory + "/modes")).value_or("");
  for (const std::string_view mode : linesOf(modes))
    report.line("mode: " + std::string(mode));
  const std::string description = invocation.host.path(directory + "/edid");
  const auto bytes = readFile(description);
  if (!bytes || bytes->empty()) return;
  // The dump of the bytes would give away what the filter drops.
  report.toolWithoutTitle({.program = "edid-decode",
                           .arguments = {"--skip-hex-dump", "--skip-sha", description},
                           .filter = dropSerialNumbers()});
}

void showState(Report& report, const std::string& path, const std::string& title) {
  const auto state = readFile(path, kStateLimit);
  if (!state) {
    if (errno == EACCES || errno == EPERM) report.notPermitted(kStates);
    return;
  }
  report.title(title);
  report.line(withoutFinalNewlines(*state));
}

void showStates(Invocation& invocation, Report& report) {
  const std::string directory = invocation.host.path(kStates);
  const auto names = namesIn(directory);
  if (!names && (errno == EACCES || errno == EPERM)) report.notPermitted(kStates);
  for (const std::string& name : names.value_or(Names{})) {
    if (name.find_first_not_of("0123456789") == std::string::npos) {
      showState(report, pathIn(directory, name) + "/state", pathIn(kStates, name));
    }
  }
}

}  // namespace

int reportGraphics(Invocation& invocation) {
  if (!invocation.arguments.empty()) return unknownArguments(invocation);
  Report report(invocation);
  bool hasCard = false;
  const auto names = namesIn(invocation.host.path(kDevices)).value_or(Names{});
  for (const std::string& name : names)
    hasCard = hasCard || isCard(name);
  if (!hasCard) {
    return lineAndExit(invocation, "no graphics device with a kernel driver", kExitNotHere);
  }
  if (isDirectory(invocation.host.path("/sys/bus/pci/devices"))) {
    report.tool({.program = "lspci",
                 .arguments = {"-nnvv", "-d", "::03xx"},
                 .filter = dropSerialNumbers()});
  }
  for (const std::string& name : names) {
    if (isConnector(name)) showConnector(invocation, report, name);
  }
  report.tool({.program = "drm_info", .filter = dropSerialNumbers()});
  showStates(invocation, report);
  return report.finish();
}

}  // namespace quillsift::tools
