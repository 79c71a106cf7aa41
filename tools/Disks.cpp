// /usr/sbin/platterctl: disks, their partitions and file systems, and what is stacked on them.

#include "tools/BlockDevices.h"
#include "tools/Files.h"
#include "tools/LineFilter.h"
#include "tools/Recipe.h"
#include "tools/Report.h"

namespace quillsift::tools {

namespace {

int listDisks(Invocation& invocation) {
  Report report(invocation);
  report.tool({.program = "lsblk",
               .arguments = {"-a", "-o",
                             "NAME,MAJ:MIN,TYPE,SIZE,RO,RM,ROTA,TRAN,FSTYPE,FSVER,LABEL,"
                             "PARTTYPENAME,PARTLABEL,MOUNTPOINTS"}});
  // The listing above takes types and labels from the device database, which a rescue system may
  // not have; this one looks at the disks themselves.
  report.tool({.program = "blkid", .arguments = {"-c", "/dev/null"}});
  (void)sawAllBlockDevices(invocation, report);
  return report.finish();
}

int listVolumes(Invocation& invocation) {
  Report report(invocation);
  report.tool({.program = "findmnt", .arguments = {"-A"}, .filter = maskSecrets()});
  report.tool({.program = "btrfs", .arguments = {"filesystem", "show"}});
  report.tool({.program = "pvs", .arguments = {}});
  report.tool({.program = "vgs", .arguments = {}});
  report.tool({.program = "lvs", .arguments = {"-a", "-o", "+devices"}});
  report.tool({.program = "mdadm", .arguments = {"--detail", "--scan"}});
  (void)sawAllBlockDevices(invocation, report);
  return report.finish();
}

// The whole disks that hold anything. A disk with hardware behind it has a "device".
struct Disk {
  std::string name;
  bool hasHardware;
};

std::vector<Disk> disksOf(const Host& host) {
  std::vector<Disk> disks;
  for (const std::string& name : namesIn(host.path("/sys/block")).value_or(Names{})) {
    const std::string directory = host.path("/sys/block/" + name);
    const bool isEmpty = readLine(directory + "/size").value_or("0") == "0";
    if (!isEmpty) disks.push_back({name, exists(directory + "/device")});
  }
  return disks;
}

int describeDisks(Invocation& invocation) {
  Report report(invocation);
  report.tool({.program = "lsblk",
               .arguments = {"-a", "-o",
                             "NAME,MODEL,REV,TRAN,HCTL,STATE,ALIGNMENT,MIN-IO,OPT-IO,PHY-SEC,"
                             "LOG-SEC,ROTA,SCHED,RQ-SIZE,RA,DISC-GRAN,DISC-MAX,ZONED"}});
  for (const Disk& disk : disksOf(invocation.host)) {
    const std::string node = "/dev/" + disk.name;
    report.tool({.program = "sfdisk", .arguments = {"-l", node}});
    if (!disk.hasHardware) continue;
    // What tells one specimen of a disk from another is not for this listing.
    report.tool({.program = "smartctl",
                 .arguments = {"-i", "-H", "-A", node},
                 .filter = dropLinesWith({"serial number", "wwn", "eui", "eui64", "nguid",
                                          "logical unit id", "use smartctl -h",
                                          "please specify device type"})});
  }
  (void)sawAllBlockDevices(invocation, report);
  return report.finish();
}

}  // namespace

int reportDisks(Invocation& invocation) {
  if (invocation.hasArguments({"list"})) return listDisks(invocation);
  if (invocation.hasArguments({"vellum", "list"})) return listVolumes(invocation);
  if (invocation.hasArguments({"info", "-all"})) return describeDisks(invocation);
  return unknownArguments(invocation);
}

}  // namespace quillsift::tools
