#include "collect/CollectionPlan.h"

#include "collect/DiskManagementLogs.h"
#include "collect/PaneInformation.h"
#include "collect/PreOSLog.h"
#include "collect/PrebootReadme.h"
#include "collect/ScreenCaptures.h"
#include "collect/SystemLogExport.h"

namespace quillsift {

namespace {

constexpr auto kUtility = QOSClass::utility;
constexpr auto kDefault = QOSClass::standard;
constexpr auto kUrgent = QOSClass::userInitiated;
constexpr auto kCurrent = std::nullopt;

constexpr auto kPublic = Sensitive::no;
constexpr auto kSensitive = Sensitive::yes;

constexpr const char* kDrreg = "/usr/sbin/drreg";
constexpr const char* kKeelboot = "/System/Volumes/Keelboot";
constexpr const char* kHardwareLogs = "/System/Volumes/Hardware/stashlogd/";
constexpr const char* kStowageLog = "/Volumes/StowageLog/io.vantor.stowage.log";
constexpr const char* kSparefoldVersion =
    "/System/Volumes/Keelboot/Sparefold/current/RestoreVersion.plist";
constexpr const char* kDiagnosticReports = "/Library/Logs/DiagnosticReports";

PlanCondition onlyIfExists(const char* path) {
  return {PlanHosts::all, path};
}

const PlanCondition kInternalOnly = {PlanHosts::internal};
const PlanCondition kVantorSiliconOnly = {PlanHosts::vantorSilicon};
const PlanCondition kVantorSiliconWithKeelboot = {PlanHosts::vantorSilicon, kKeelboot};
const PlanCondition kOtherSiliconOnly = {PlanHosts::otherSilicon};

PlanRow registryPlane(const char* plane, const char* relativePath) {
  return {Command{kDrreg, {"-i", "-l", "-p", plane, "-w", "0"}}, relativePath, kSensitive,
          kUtility};
}

std::vector<PlanItem> makePlan() {
  using std::chrono::seconds;
  return {
      PlanAction::announceStart,
      PlanAction::startCoDiagnose,

      // What is fleeting, before anything else disturbs it.
      PlanRow{Command{"/usr/sbin/stallscope", {"-noSymbolicate", "-stdout", "-noFile"}},
              "stallscope.txt", kPublic, kUrgent},
      PlanRow{
          Command{"/usr/sbin/lsof", {"-n", "-M", "-P", "-T", "-w", "+c", "0", "-s", "+fg", "+L"}},
          "lsof.txt", kPublic, kUrgent},
      PlanWait{seconds(30)},
      PlanRow{Command{"/bin/ps",
                      {"axwww", "-o",
                       "user,uid,pid,ppid,%cpu,%mem,pri,ni,vsz,rss,wchan,tt,stat,start,time,"
                       "command"}},
              "ps.txt", kPublic, kUrgent},
      PlanRow{
          Command{"/bin/ps", {"axMwww", "-o", "ppid,%mem,pri,ni,vsz,rss,wchan,start,time,command"}},
          "ps_thread.txt", kPublic, kUrgent},
      PlanWait{seconds(10)},

      PlanRow{Producer{queueScreenCaptures}, "screenshots/", kPublic, kUtility, kInternalOnly},
      PlanAction::approveAccessories,

      PlanRow{EntryReads{kHardwareLogs}, "stashlogd/", kSensitive, kUtility,
              onlyIfExists(kHardwareLogs)},
      PlanRow{Work{diskManagementLogWork, "/private/var/log/stw/"}, "stw.log", kPublic, kUrgent},
      PlanRow{FileCopy{kStowageLog}, "io.vantor.stowage.log", kPublic, kUrgent,
              onlyIfExists(kStowageLog)},
      PlanWait{seconds(20)},

      PlanRow{Producer{exportSystemLog}, "Logs/Recovery.logarchive/", kSensitive, kUtility},

      PlanRow{Work{[](const std::string&) { return preOSLogWork(); }, ""}, "Logs/pre_os.log",
              kPublic, kUtility},
      PlanRow{Report{&CollectionServices::provenanceReport}, "ProvenanceDiagnosticReport.plist",
              kSensitive, kUtility},
      PlanRow{Command{"/usr/bin/relquery", {}}, "relquery.txt", kPublic, kUtility},
      PlanRow{Command{"/usr/sbin/platterctl", {"list"}}, "platterctl_list.txt", kPublic, kUtility},
      PlanRow{Command{"/usr/sbin/platterctl", {"vellum", "list"}}, "platterctl_vellum_list.txt",
              kPublic, kUtility},
      PlanRow{Command{"/usr/sbin/platterctl", {"info", "-all"}}, "platterctl_info.txt", kPublic,
              kUtility},
      PlanRow{Command{"/bin/df", {"-h"}}, "df_disks.txt", kPublic, kUtility},
      PlanRow{Command{"/usr/sbin/bootmark", {"--info", "--getBoot", "--verbose"}},
              "bootmark_info.txt", kPublic, kDefault},
      PlanRow{Command{"/bin/svcherd", {"list"}}, "svcherd_list.txt", kPublic, kUtility},
      PlanRow{Command{"/bin/svcherd", {"dumpstate"}}, "svcherd_dumpstate.txt", kPublic, kUtility},
      PlanRow{Command{"/usr/sbin/modtally", {}}, "modtally.txt", kPublic, kUtility},

      PlanRow{FileCopy{"/var/log/system.log"}, "Logs/system.log", kPublic, kUtility},
      PlanRow{FileCopy{"/var/log/rescueos.log"}, "Logs/rescueos.log", kPublic, kUtility},
      PlanRow{FileCopy{"/var/log/migration.log"}, "Logs/migration.log", kSensitive, kUtility},
      PlanRow{FileCopy{"/var/log/strata_convert.log"}, "strata_convert.log", kPublic, kUtility},
      PlanRow{FileCopy{"/var/log/fsck_vellum.log"}, "Logs/fsck_vellum.log", kPublic, kUtility},
      PlanRow{FileCopy{"/var/log/fsck_strata.log"}, "Logs/fsck_strata.log", kPublic, kUtility},
      PlanRow{FileCopy{"/var/log/seekbeacon.log"}, "Logs/seekbeacon.log", kSensitive, kUtility},
      PlanRow{FileCopy{"/var/log/io.vantor.weft.herdkeeper/herdkeeper.log"}, "Logs/herdkeeper.log",
              kPublic, kUtility},
      PlanRow{FileCopy{"/var/log/automation_trampoline.log"}, "Logs/automation_trampoline.log",
              kPublic, kUtility},

      PlanRow{Command{"/usr/bin/guardctl", {"status"}}, "guardctl.log", kPublic, kUtility},
      PlanRow{Command{"/usr/sbin/sysctl", {"-a", "-o"}}, "sysctl.txt", kPublic, kUtility},
      PlanRow{Command{"/usr/sbin/vaultkit", {"--list"}}, "vaultkit_list.log", kPublic, kUtility},
      PlanRow{Command{"/System/Library/Frameworks/Groundwork.framework/Frameworks/"
                      "Openhand.framework/Support/regtally",
                      {"-bdump"}},
              "regtally.gwstoredump", kPublic, kUtility},
      PlanRow{Command{"/usr/sbin/nvram", {"-x", "-p"}}, "nvram.plist", kSensitive, kUtility,
              kInternalOnly},
      PlanRow{Command{"/usr/sbin/nvram", {"-p"}}, "nvram_raw.txt", kSensitive, kUtility,
              kInternalOnly},
      PlanRow{Command{"/usr/bin/sealwarden", {"-e"}}, "sealwarden.txt", kPublic, kUtility,
              kVantorSiliconOnly},
      PlanRow{Command{"/bin/ls", {"-la@OR", kKeelboot}}, "Volume Contents/Keelboot-Contents.log",
              kPublic, kUtility, kVantorSiliconWithKeelboot},
      PlanRow{Command{"/usr/bin/packrat", {"archive", "-x", "-d", kKeelboot, "-a", "tidepack"}},
              "Volume Contents/Keelboot.pkr", kPublic, kUtility, kVantorSiliconWithKeelboot},
      PlanRow{Command{"/usr/libexec/fwlogdump", {}}, "Logs/fwlogdump.txt", kSensitive, kUtility,
              kOtherSiliconOnly},

      PlanAction::findVolumes,
      PlanRow{PerVolume{16, collectPrebootVolume}, "", kPublic, kUtility},
      PlanRow{Work{prebootReadmeWork, kPrebootLogsLink}, "Logs/Preboot/README.txt", kSensitive,
              kCurrent},
      PlanRow{PerVolume{192, collectUpdateVolume}, "", kPublic, kUtility},
      PlanRow{PerVolume{320, collectHardwareVolume}, "", kPublic, kUtility},
      PlanRow{FileCopy{kSparefoldVersion}, "Uplift/SparefoldRestoreVersion.plist", kPublic,
              kUtility, onlyIfExists(kSparefoldVersion)},

      registryPlane("DrService", "/drreg/DrService.txt"),
      registryPlane("DrACPIPlane", "/drreg/DrACPIPlane.txt"),
      registryPlane("DrPower", "/drreg/DrPower.txt"),
      registryPlane("DrDeviceTree", "/drreg/DrDeviceTree.txt"),
      registryPlane("DrUSB", "/drreg/DrUSB.txt"),
      registryPlane("DrFlarebus", "/drreg/DrFlarebus.txt"),
      registryPlane("DrPort", "/drreg/DrPort.txt"),
      PlanRow{Command{kDrreg, {"-a", "-l", "-w0", "-x", "0"}}, "/drreg/DrReg.xml", kSensitive,
              kUtility},

      PlanRow{Command{"/System/Library/Extensions/DrGraphicsFamily.kext/pixdiag", {}},
              "Graphics/pixdiag.txt", kPublic, kUtility},
      PlanRow{Work{paneInformationWork,
                   "/System/Library/PrivateFrameworks/Glasswork.framework/Resources/paneinfo"},
              "Graphics/paneinfo.bin", kPublic, kCurrent},
      PlanRow{LocatedFileCopy{&VolumeServices::OstraLogOnTarget}, "ostra.log", kSensitive,
              kUtility},
      PlanRow{EntryCopies{kDiagnosticReports}, "CrashesSpinsDiags/", kPublic, kUtility,
              onlyIfExists(kDiagnosticReports)},
      PlanRow{Report{&CollectionServices::companionProperties}, "RemoteDeviceInformation.plist",
              kPublic, kUtility},
      PlanRow{CoDiagnoseArchive{}, "", kSensitive, kUrgent},
      PlanWait{seconds(180)},

      // Last, so that it holds what the jobs above made the system write.
      PlanRow{FileCopy{"/var/log/install.log"}, "Logs/install.log", kPublic, kUrgent},
      PlanWait{seconds(30)},
      PlanAction::endSession,
  };
}

}  // namespace

const std::vector<PlanItem>& collectionPlan() {
  static const std::vector<PlanItem> plan = makePlan();
  return plan;
}

}  // namespace quillsift
