// /bin/svcherd: the services of the running system.

#include "tools/Services.h"

#include <algorithm>

#include "tools/ExitCodes.h"
#include "tools/Files.h"
#include "tools/LineFilter.h"
#include "tools/Recipe.h"
#include "tools/Report.h"

namespace quillsift::tools {

namespace {

bool serviceManagerRuns(const Host& host) {
  return isDirectory(host.path("/run/systemd/system"));
}

// The run levels in which the links of /etc/rcN.d start a script: "2345".
std::string startLevels(const Host& host, const std::string& script) {
  std::string levels;
  for (const char level : std::string_view("S0123456")) {
    const auto links = namesIn(host.path(std::string("/etc/rc") + level + ".d"));
    if (!links) continue;
    for (const std::string& link : *links) {
      const bool starts = link.size() > 3 && link.front() == 'S';
      if (starts && std::string_view(link).substr(3) == script) levels += level;
    }
  }
  return levels;
}

// Only the names: asking each script for its status would run them all.
int listScripts(Invocation& invocation) {
  const auto scripts = namesIn(invocation.host.path("/etc/init.d"));
  const auto supervised = namesIn(invocation.host.path("/etc/sv"));
  if (!scripts && !supervised) return lineAndExit(invocation, "no service manager", kExitNotHere);
  Report report(invocation);
  if (scripts) {
    report.title("/etc/init.d, with the run levels that start it");
    for (const std::string& script : *scripts) {
      invocation.output.print("%-32s %s\n", script.c_str(),
                              startLevels(invocation.host, script).c_str());
    }
  }
  if (supervised) {
    report.title("/etc/sv");
    for (const std::string& service : *supervised)
      report.line(service);
  }
  return report.finish();
}

int listUnits(Invocation& invocation) {
  if (!serviceManagerRuns(invocation.host)) return listScripts(invocation);
  Report report(invocation);
  report.tool({.program = "systemctl",
               .arguments = {"list-units", "--all", "--plain", "--no-pager", "--full"},
               .filter = maskDiskIdentifiers()});
  return report.finish();
}

int dumpState(Invocation& invocation) {
  Report report(invocation);
  if (serviceManagerRuns(invocation.host)) {
    report.tool({.program = "systemd-analyze",
                 .arguments = {"dump", "--no-pager"},
                 .limit = std::chrono::seconds(30),
                 .filter = both(both(dropEnvironments(), maskDiskIdentifiers()), maskSecrets())});
  } else {
    report.tool({.program = "ps",
                 .arguments = {"-e", "-ww", "-o", "pid,ppid,sid,stat,etime,cgroup,args"},
                 .filter = maskSecrets()});
  }
  return report.finish();
}

}  // namespace

LineFilter dropEnvironments() {
  // A value may hold newlines; its further lines do not begin like lines of the dump.
  return [dropping = false](std::string& line) mutable {
    const std::string_view text = trimmed(line);
    const std::string_view key = text.substr(0, std::min(text.find_first_of(":="), text.size()));
    const bool isSecret = key.ends_with("Environment") || key.find("Credential") != key.npos;
    const bool beginsLikeDump = line.starts_with('\t') || line.starts_with("-> ");
    dropping = isSecret || (dropping && !beginsLikeDump);
    return !dropping;
  };
}

LineFilter maskDiskIdentifiers() {
  return [](std::string& line) {
    // As a path, and as the name of a unit made of it.
    for (const std::string_view marker : {"disk/by-id/", "disk-by\\x2did-"}) {
      std::size_t place = 0;
      while ((place = line.find(marker, place)) != std::string::npos) {
        place += marker.size();
        const std::size_t end = line.find_first_of(" \t,;\"'", place);
        const std::size_t suffix = line.find(".device", place);
        line.replace(place, std::min({end, suffix, line.size()}) - place, "(masked)");
      }
    }
    return true;
  };
}

int reportServices(Invocation& invocation) {
  if (invocation.hasArguments({"list"})) return listUnits(invocation);
  if (invocation.hasArguments({"dumpstate"})) return dumpState(invocation);
  return unknownArguments(invocation);
}

}  // namespace quillsift::tools
