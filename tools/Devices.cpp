// /usr/sbin/drreg: the devices of this machine, by the ways in which they hang together.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>

#include "tools/DeviceTree.h"
#include "tools/DeviceWalk.h"
#include "tools/DeviceWriters.h"
#include "tools/ExitCodes.h"
#include "tools/Files.h"
#include "tools/HostListing.h"
#include "tools/Recipe.h"
#include "tools/TimeLimit.h"

namespace quillsift::tools {

namespace {

constexpr std::chrono::seconds kWalkLimit{30};

// Directories that hold devices, or links to them.
struct Plane {
  std::string_view name;
  std::vector<const char*> trees;    // walked from the top
  std::vector<const char*> members;  // each entry is a device, or a link to one
  std::vector<const char*> tables;   // only named: their files are read by other programs
};

const std::vector<Plane>& planes() {
  static const std::vector<Plane> list = {
      {"DrService", {"/sys/devices"}, {}, {}},
      {"DrACPIPlane", {"/sys/devices/LNXSYSTM:00"}, {}, {"/sys/firmware/acpi"}},
      {"DrPower",
       {"/sys/power"},
       {"/sys/class/power_supply", "/sys/class/thermal", "/sys/class/wakeup"},
       {}},
      {"DrUSB", {}, {"/sys/bus/usb/devices"}, {}},
      {"DrFlarebus", {}, {"/sys/bus/thunderbolt/devices", "/sys/bus/firewire/devices"}, {}},
      {"DrPort",
       {},
       {"/sys/class/tty", "/sys/class/typec", "/sys/class/usb_role", "/sys/class/net",
        "/sys/class/scsi_host", "/sys/class/ata_port"},
       {}},
  };
  return list;
}

struct Member {
  std::string name;
  std::string directory;  // with all links followed
};

// The members of a class or bus that are not below another member: walking those shows the rest.
std::vector<Member> topMembers(const std::string& directory) {
  std::vector<Member> members;
  for (const std::string& name : namesIn(directory).value_or(Names{})) {
    char real[PATH_MAX];
    const std::string path = pathIn(directory, name);
    if (isDirectory(path) && ::realpath(path.c_str(), real) != nullptr) {
      members.push_back({name, real});
    }
  }
  std::vector<Member> tops;
  for (const Member& member : members) {
    const bool isBelow = std::any_of(members.begin(), members.end(), [&](const Member& other) {
      return member.directory.starts_with(other.directory + "/");
    });
    if (!isBelow) tops.push_back(member);
  }
  return tops;
}

int finish(Invocation& invocation, const DeviceWalk& walk) {
  int exitCode = 0;
  if (walk.notPermitted() > 0) {
    invocation.output.write("\n");
    exitCode = listedInPart(invocation, std::to_string(walk.notPermitted()) + " attributes");
  }
  if (!walk.stoppedEarly()) return exitCode;
  invocation.output.print("\nstopped after %d s\n", static_cast<int>(kWalkLimit.count()));
  return kExitTimeLimit;
}

// "no /sys/a and no /sys/b on this machine"
int noneOfThem(Invocation& invocation, const std::vector<const char*>& directories) {
  std::string text;
  for (const char* directory : directories) {
    text += std::string(text.empty() ? "no " : " and no ") + directory;
  }
  return lineAndExit(invocation, text + " on this machine", kExitNotHere);
}

void listTables(const Host& host, const std::string& directory, Output& output) {
  for (const std::string& name : namesIn(host.path(directory)).value_or(Names{})) {
    const std::string entry = pathIn(directory, name);
    struct stat status {};
    if (::lstat(host.path(entry).c_str(), &status) != 0) continue;
    if (S_ISDIR(status.st_mode)) {
      listTables(host, entry, output);
    } else if (S_ISREG(status.st_mode)) {
      output.print("%s  %lld bytes\n", entry.c_str(), static_cast<long long>(status.st_size));
    }
  }
}

int showPlane(Invocation& invocation, const Plane& plane) {
  const Host& host = invocation.host;
  const TimeLimit limit(kWalkLimit);
  DeviceTextWriter writer(invocation.output);
  DeviceWalk walk(limit, writer);
  std::vector<const char*> missing;
  for (const char* tree : plane.trees) {
    if (!walk.walk(host.path(tree), tree)) missing.push_back(tree);
  }
  for (const char* directory : plane.members) {
    if (!isDirectory(host.path(directory))) {
      missing.push_back(directory);
      continue;
    }
    const auto members = topMembers(host.path(directory));
    invocation.output.print("== %s ==\n%s", directory, members.empty() ? "(empty)\n" : "");
    for (const Member& member : members)
      walk.walk(member.directory, member.name);
  }
  for (const char* directory : plane.tables) {
    if (isDirectory(host.path(directory))) {
      listTables(host, directory, invocation.output);
    } else {
      missing.push_back(directory);
    }
  }
  if (missing.size() == plane.trees.size() + plane.members.size() + plane.tables.size()) {
    return noneOfThem(invocation, missing);
  }
  for (const char* directory : missing)
    invocation.output.lineOf({"no ", directory, " on this machine"});
  return finish(invocation, walk);
}

int showDeviceTree(Invocation& invocation) {
  constexpr const char* kTree = "/sys/firmware/devicetree/base";
  constexpr const char* kTables = "/sys/class/dmi/id";
  const bool hasTree = isDirectory(invocation.host.path(kTree));
  const TimeLimit limit(kWalkLimit);
  DeviceTextWriter writer(invocation.output);
  DeviceWalk walk(limit, writer);
  if (hasTree) {
    printDeviceTree(invocation.host.path(kTree), invocation.output);
  } else if (char real[PATH_MAX];
             ::realpath(invocation.host.path(kTables).c_str(), real) == nullptr ||
             !walk.walk(real, kTables)) {
    return noneOfThem(invocation, {kTree, kTables});
  }
  printFirmwareOptions(invocation.host, invocation.output);
  return finish(invocation, walk);
}

int showAllAsPropertyList(Invocation& invocation) {
  constexpr const char* kDevices = "/sys/devices";
  if (!isDirectory(invocation.host.path(kDevices))) return noneOfThem(invocation, {kDevices});
  const TimeLimit limit(kWalkLimit);
  PropertyListWriter list(invocation.output);
  DevicePropertyListWriter writer(list);
  DeviceWalk walk(limit, writer);
  walk.walk(invocation.host.path(kDevices), kDevices);
  list.finish();
  // Nothing may follow the root: that the list is not whole is told by the exit code alone.
  if (walk.stoppedEarly()) return kExitTimeLimit;
  return walk.notPermitted() > 0 && ::geteuid() != 0 ? kExitNotPermitted : 0;
}

}  // namespace

int dumpDevices(Invocation& invocation) {
  if (invocation.hasArguments({"-a", "-l", "-w0", "-x", "0"})) {
    return showAllAsPropertyList(invocation);
  }
  const auto& arguments = invocation.arguments;
  if (arguments.size() == 6 &&
      invocation.hasArguments({"-i", "-l", "-p", arguments[3], "-w", "0"})) {
    if (arguments[3] == "DrDeviceTree") return showDeviceTree(invocation);
    for (const Plane& plane : planes()) {
      if (plane.name == arguments[3]) return showPlane(invocation, plane);
    }
  }
  return unknownArguments(invocation);
}

}  // namespace quillsift::tools
