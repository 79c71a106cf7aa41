// Every row of the plan against literals: what is queued, in which order, on which machine.

#include <gmock/gmock.h>

#include <algorithm>
#include <set>

#include "collect/CollectionPlan.h"
#include "tests/collect/PlanFixture.h"

namespace quillsift {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

using Kind = RecordingCollectionHost::Kind;

constexpr auto command = Kind::command;
constexpr auto copy = Kind::copy;
constexpr auto work = Kind::work;

constexpr auto kUtility = QOSClass::utility;
constexpr auto kDefault = QOSClass::standard;
constexpr auto kUserInitiated = QOSClass::userInitiated;

struct Expected {
  Kind kind;
  std::string path;
  std::vector<std::string> arguments;
  std::string relativePath;
  bool sensitive;
  QOSClass qos;
};

// What is queued on any machine, in order, by the thread that runs the plan.
const std::vector<Expected> kEverywhere = {
    {command,
     "/usr/sbin/stallscope",
     {"-noSymbolicate", "-stdout", "-noFile"},
     "stallscope.txt",
     false,
     kUserInitiated},
    {command,
     "/usr/sbin/lsof",
     {"-n", "-M", "-P", "-T", "-w", "+c", "0", "-s", "+fg", "+L"},
     "lsof.txt",
     false,
     kUserInitiated},
    {command,
     "/bin/ps",
     {"axwww", "-o", "user,uid,pid,ppid,%cpu,%mem,pri,ni,vsz,rss,wchan,tt,stat,start,time,command"},
     "ps.txt",
     false,
     kUserInitiated},
    {command,
     "/bin/ps",
     {"axMwww", "-o", "ppid,%mem,pri,ni,vsz,rss,wchan,start,time,command"},
     "ps_thread.txt",
     false,
     kUserInitiated},
    {work, "", {}, "stw.log", false, kUserInitiated},
    {work, "", {}, "Logs/pre_os.log", false, kUtility},
    {work, "", {}, "ProvenanceDiagnosticReport.plist", true, kUtility},
    {command, "/usr/bin/relquery", {}, "relquery.txt", false, kUtility},
    {command, "/usr/sbin/platterctl", {"list"}, "platterctl_list.txt", false, kUtility},
    {command,
     "/usr/sbin/platterctl",
     {"vellum", "list"},
     "platterctl_vellum_list.txt",
     false,
     kUtility},
    {command, "/usr/sbin/platterctl", {"info", "-all"}, "platterctl_info.txt", false, kUtility},
    {command, "/bin/df", {"-h"}, "df_disks.txt", false, kUtility},
    {command,
     "/usr/sbin/bootmark",
     {"--info", "--getBoot", "--verbose"},
     "bootmark_info.txt",
     false,
     kDefault},
    {command, "/bin/svcherd", {"list"}, "svcherd_list.txt", false, kUtility},
    {command, "/bin/svcherd", {"dumpstate"}, "svcherd_dumpstate.txt", false, kUtility},
    {command, "/usr/sbin/modtally", {}, "modtally.txt", false, kUtility},
    {copy, "/var/log/system.log", {}, "Logs/system.log", false, kUtility},
    {copy, "/var/log/rescueos.log", {}, "Logs/rescueos.log", false, kUtility},
    {copy, "/var/log/migration.log", {}, "Logs/migration.log", true, kUtility},
    {copy, "/var/log/strata_convert.log", {}, "strata_convert.log", false, kUtility},
    {copy, "/var/log/fsck_vellum.log", {}, "Logs/fsck_vellum.log", false, kUtility},
    {copy, "/var/log/fsck_strata.log", {}, "Logs/fsck_strata.log", false, kUtility},
    {copy, "/var/log/seekbeacon.log", {}, "Logs/seekbeacon.log", true, kUtility},
    {copy,
     "/var/log/io.vantor.weft.herdkeeper/herdkeeper.log",
     {},
     "Logs/herdkeeper.log",
     false,
     kUtility},
    {copy,
     "/var/log/automation_trampoline.log",
     {},
     "Logs/automation_trampoline.log",
     false,
     kUtility},
    {command, "/usr/bin/guardctl", {"status"}, "guardctl.log", false, kUtility},
    {command, "/usr/sbin/sysctl", {"-a", "-o"}, "sysctl.txt", false, kUtility},
    {command, "/usr/sbin/vaultkit", {"--list"}, "vaultkit_list.log", false, kUtility},
    {command,
     "/System/Library/Frameworks/Groundwork.framework/Frameworks/Openhand.framework/Support/"
     "regtally",
     {"-bdump"},
     "regtally.gwstoredump",
     false,
     kUtility},
    {work, "", {}, "Logs/Preboot/README.txt", true, kUtility},  // the class of the run queue
    {command,
     "/usr/sbin/drreg",
     {"-i", "-l", "-p", "DrService", "-w", "0"},
     "/drreg/DrService.txt",
     true,
     kUtility},
    {command,
     "/usr/sbin/drreg",
     {"-i", "-l", "-p", "DrACPIPlane", "-w", "0"},
     "/drreg/DrACPIPlane.txt",
     true,
     kUtility},
    {command,
     "/usr/sbin/drreg",
     {"-i", "-l", "-p", "DrPower", "-w", "0"},
     "/drreg/DrPower.txt",
     true,
     kUtility},
    {command,
     "/usr/sbin/drreg",
     {"-i", "-l", "-p", "DrDeviceTree", "-w", "0"},
     "/drreg/DrDeviceTree.txt",
     true,
     kUtility},
    {command,
     "/usr/sbin/drreg",
     {"-i", "-l", "-p", "DrUSB", "-w", "0"},
     "/drreg/DrUSB.txt",
     true,
     kUtility},
    {command,
     "/usr/sbin/drreg",
     {"-i", "-l", "-p", "DrFlarebus", "-w", "0"},
     "/drreg/DrFlarebus.txt",
     true,
     kUtility},
    {command,
     "/usr/sbin/drreg",
     {"-i", "-l", "-p", "DrPort", "-w", "0"},
     "/drreg/DrPort.txt",
     true,
     kUtility},
    {command,
     "/usr/sbin/drreg",
     {"-a", "-l", "-w0", "-x", "0"},
     "/drreg/DrReg.xml",
     true,
     kUtility},
    {command,
     "/System/Library/Extensions/DrGraphicsFamily.kext/pixdiag",
     {},
     "Graphics/pixdiag.txt",
     false,
     kUtility},
    {work, "", {}, "Graphics/paneinfo.bin", false, kUtility},  // the class of the run queue
    {work, "", {}, "RemoteDeviceInformation.plist", false, kUtility},
    {copy, "/var/log/install.log", {}, "Logs/install.log", false, kUserInitiated},
};

const Expected kFirmwareLog = {command, "/usr/libexec/fwlogdump", {}, "Logs/fwlogdump.txt", true,
                               kUtility};

// What else is queued by that thread on a machine that has everything, each behind the job named.
struct Extra {
  std::string behind;
  Expected job;
};
const std::vector<Extra> kExtras = {
    {"ps_thread.txt", {work, "", {}, "stashlogd/.hidden", true, kUtility}},
    {"stashlogd/.hidden", {work, "", {}, "stashlogd/panic", true, kUtility}},
    {"stw.log",
     {copy,
      "/Volumes/StowageLog/io.vantor.stowage.log",
      {},
      "io.vantor.stowage.log",
      false,
      kUserInitiated}},
    {"io.vantor.stowage.log", {work, "", {}, "Logs/Recovery.logarchive/Persist/1", true, kUtility}},
    {"regtally.gwstoredump",
     {command, "/usr/sbin/nvram", {"-x", "-p"}, "nvram.plist", true, kUtility}},
    {"nvram.plist", {command, "/usr/sbin/nvram", {"-p"}, "nvram_raw.txt", true, kUtility}},
    {"nvram_raw.txt", {command, "/usr/bin/sealwarden", {"-e"}, "sealwarden.txt", false, kUtility}},
    {"sealwarden.txt",
     {command,
      "/bin/ls",
      {"-la@OR", "/System/Volumes/Keelboot"},
      "Volume Contents/Keelboot-Contents.log",
      false,
      kUtility}},
    {"Volume Contents/Keelboot-Contents.log",
     {command,
      "/usr/bin/packrat",
      {"archive", "-x", "-d", "/System/Volumes/Keelboot", "-a", "tidepack"},
      "Volume Contents/Keelboot.pkr",
      false,
      kUtility}},
    {"Logs/Preboot/README.txt",
     {copy,
      "/System/Volumes/Keelboot/Sparefold/current/RestoreVersion.plist",
      {},
      "Uplift/SparefoldRestoreVersion.plist",
      false,
      kUtility}},
    {"Graphics/paneinfo.bin", {copy, "/mnt/target/ostra.log", {}, "ostra.log", true, kUtility}},
    {"ostra.log",
     {copy, "/Library/Logs/DiagnosticReports/.b", {}, "CrashesSpinsDiags/.b", false, kUtility}},
    {"CrashesSpinsDiags/.b",
     {copy, "/Library/Logs/DiagnosticReports/a", {}, "CrashesSpinsDiags/a", false, kUtility}},
};

std::vector<Expected> onAFullMachine() {
  std::vector<Expected> rows = kEverywhere;
  for (const Extra& extra : kExtras) {
    const auto place = std::find_if(rows.begin(), rows.end(), [&](const Expected& row) {
      return row.relativePath == extra.behind;
    });
    rows.insert(place + 1, extra.job);
  }
  return rows;
}

std::vector<Expected> onABareMachine() {
  std::vector<Expected> rows = kEverywhere;
  const auto place = std::find_if(rows.begin(), rows.end(), [](const Expected& row) {
    return row.relativePath == "regtally.gwstoredump";
  });
  rows.insert(place + 1, kFirmwareLog);
  return rows;
}

class CollectionPlanTest : public PlanFixture {
 protected:
  void giveEverything() {
    internal = true;
    vantorSilicon = true;
    MemoryFileSystem& files = platform.fileSystem();
    files.addFile("/System/Volumes/Hardware/stashlogd/.hidden", "1");
    files.addFile("/System/Volumes/Hardware/stashlogd/panic", "2");
    files.addFile("/Volumes/StowageLog/io.vantor.stowage.log", "3");
    files.addFile("/System/Volumes/Keelboot/Sparefold/current/RestoreVersion.plist", "4");
    files.addFile("/Library/Logs/DiagnosticReports/a", "5");
    files.addFile("/Library/Logs/DiagnosticReports/.b/below", "6");
    files.addDescriptor(70, files.addFile("/archive/1", "7"));
    platform.logArchiveBuilder().members = {{70, "Persist/1"}};
    platform.displays().displays = {{.identifier = 1}};
    volumes->ostraLog = "/mnt/target/ostra.log";
    volumes->volumes = {
        {16, "UUID-P", "/mnt/P"}, {192, "UUID-U", "/mnt/U"}, {320, "UUID-H", "/mnt/H"}};
    companion = std::make_shared<FakeCoDiagnose>();
    companion->handle = std::make_shared<FakeReadHandle>();
    companion->setArchive("companion.tar.gz", true);
    companion->handle->deliver("bytes");
  }

  // The jobs that producers, collectors and the companion's reader queue from threads of theirs.
  static bool isQueuedElsewhere(const Job& job) {
    static const std::set<std::string> elsewhere = {
        "screenshots/0.png", "Volume Contents/Preboot/UUID-P.log",
        "Volume Contents/Update/UUID-U.log", "companion.tar.gz"};
    return elsewhere.contains(job.relativePath);
  }

  void expectRows(const std::vector<Expected>& rows) {
    std::vector<Job> jobs = host->jobs();
    std::erase_if(jobs, isQueuedElsewhere);
    ASSERT_EQ(jobs.size(), rows.size()) << testing::PrintToString(relativePaths());
    for (std::size_t i = 0; i < rows.size(); ++i)
      expectRow(jobs[i], rows[i]);
  }

  void expectRow(const Job& job, const Expected& row) {
    SCOPED_TRACE(row.relativePath);
    EXPECT_EQ(job.relativePath, row.relativePath);
    EXPECT_EQ(job.kind, row.kind);
    EXPECT_EQ(job.path, row.path);
    EXPECT_EQ(job.arguments, row.arguments);
    EXPECT_EQ(job.sensitive, row.sensitive);
    EXPECT_EQ(job.qos, row.qos);
    EXPECT_EQ(job.uuid, sessionUUID.text());
    EXPECT_EQ(job.group, host->jobs().front().group);
    EXPECT_EQ(job.work != nullptr, row.kind == work);
  }
};

TEST_F(CollectionPlanTest, QueuesTheseJobsOnABareMachine) {
  runToEnd();
  expectRows(onABareMachine());
}

TEST_F(CollectionPlanTest, QueuesTheseJobsOnAMachineThatHasEverything) {
  giveEverything();
  runToEnd();
  expectRows(onAFullMachine());
}

TEST_F(CollectionPlanTest, QueuesTheRestFromOtherThreads) {
  giveEverything();
  runToEnd();
  std::vector<Job> jobs = host->jobs();
  std::erase_if(jobs, [](const Job& job) { return !isQueuedElsewhere(job); });
  std::vector<std::string> paths;
  for (const Job& job : jobs)
    paths.push_back(job.relativePath);
  EXPECT_THAT(paths, UnorderedElementsAre("screenshots/0.png", "Volume Contents/Preboot/UUID-P.log",
                                          "Volume Contents/Update/UUID-U.log", "companion.tar.gz"));
}

TEST_F(CollectionPlanTest, KeepsTheGroupsOfCollectorsAndCompanionApart) {
  giveEverything();
  runToEnd();
  const auto sessionGroup = host->jobs().front().group;
  EXPECT_EQ(host->job("screenshots/0.png")->group, sessionGroup);
  const auto preboot = host->job("Volume Contents/Preboot/UUID-P.log")->group;
  const auto update = host->job("Volume Contents/Update/UUID-U.log")->group;
  const auto archive = host->job("companion.tar.gz")->group;
  const std::set<std::shared_ptr<WorkGroup>> groups = {sessionGroup, preboot, update, archive};
  EXPECT_EQ(groups.size(), 4U);
}

TEST_F(CollectionPlanTest, TakesTheClassOfTheRunningThreadForTwoRows) {
  runToEnd(QOSClass::userInitiated);
  EXPECT_EQ(host->job("Logs/Preboot/README.txt")->qos, QOSClass::userInitiated);
  EXPECT_EQ(host->job("Graphics/paneinfo.bin")->qos, QOSClass::userInitiated);
  EXPECT_EQ(host->job("relquery.txt")->qos, QOSClass::utility);
}

TEST_F(CollectionPlanTest, QueuesPicturesAndFirmwareVariablesOnInternalBuildsOnly) {
  platform.displays().displays = {{.identifier = 1}};
  runToEnd();
  for (const char* path : {"screenshots/0.png", "nvram.plist", "nvram_raw.txt"})
    EXPECT_FALSE(queued(path)) << path;
  EXPECT_THAT(platform.displays().roomsAsked, IsEmpty());
}

TEST_F(CollectionPlanTest, QueuesTheSealAloneOnItsOwnSiliconWithoutKeelboot) {
  vantorSilicon = true;
  runToEnd();
  EXPECT_TRUE(queued("sealwarden.txt"));
  EXPECT_FALSE(queued("Volume Contents/Keelboot-Contents.log"));
  EXPECT_FALSE(queued("Volume Contents/Keelboot.pkr"));
  EXPECT_FALSE(queued("Logs/fwlogdump.txt"));
}

TEST_F(CollectionPlanTest, QueuesTheFirmwareLogOnOtherSiliconEvenWithKeelboot) {
  platform.fileSystem().addDirectory("/System/Volumes/Keelboot");
  runToEnd();
  EXPECT_TRUE(queued("Logs/fwlogdump.txt"));
  EXPECT_FALSE(queued("sealwarden.txt"));
  EXPECT_FALSE(queued("Volume Contents/Keelboot-Contents.log"));
  EXPECT_FALSE(queued("Volume Contents/Keelboot.pkr"));
}

TEST_F(CollectionPlanTest, CopiesTheRestoreVersionOnEitherFamily) {
  platform.fileSystem().addFile("/System/Volumes/Keelboot/Sparefold/current/RestoreVersion.plist",
                                "version");
  runToEnd();
  EXPECT_TRUE(queued("Uplift/SparefoldRestoreVersion.plist"));
}

TEST_F(CollectionPlanTest, QueuesNothingForAnEmptyHardwareLogDirectory) {
  platform.fileSystem().addDirectory("/System/Volumes/Hardware/stashlogd/");
  runToEnd();
  expectRows(onABareMachine());
}

TEST_F(CollectionPlanTest, QueuesOneReadForEachEntryOfTheHardwareLogDirectory) {
  const std::string directory = "/System/Volumes/Hardware/stashlogd/";
  platform.fileSystem().addFile(directory + "good", "text");
  platform.fileSystem().addFile(directory + "bad", "text")->openError = 13;
  platform.fileSystem().addFile(directory + "below/file", "text");
  runToEnd();
  const WorkOutcome good(host->job("stashlogd/good")->work);
  EXPECT_EQ(good.text(), "text");
  const WorkOutcome bad(host->job("stashlogd/bad")->work);
  EXPECT_TRUE(bad.succeeded);
  ASSERT_NE(bad.entry, nullptr);
  EXPECT_FALSE(bad.entry->fileData().has_value());
  EXPECT_TRUE(queued("stashlogd/below"));
  EXPECT_FALSE(queued("stashlogd/below/file"));
}

TEST_F(CollectionPlanTest, NamesFromDiskAreTextAndPathsKeepTheirBytes) {
  platform.fileSystem().addFile("/Library/Logs/DiagnosticReports/odd\xFF.crash", "text");
  platform.fileSystem().addFile("/System/Volumes/Hardware/stashlogd/odd\xFF", "text");
  runToEnd();
  EXPECT_EQ(host->job("CrashesSpinsDiags/odd\xEF\xBF\xBD.crash")->path,
            "/Library/Logs/DiagnosticReports/odd\xFF.crash");
  EXPECT_EQ(WorkOutcome(host->job("stashlogd/odd\xEF\xBF\xBD")->work).text(), "text");
}

TEST_F(CollectionPlanTest, QueuesTheNoteAboutPrebootLogsWithoutAnyVolume) {
  runToEnd();
  EXPECT_TRUE(queued("Logs/Preboot/README.txt"));
  EXPECT_THAT(volumes->requests(), IsEmpty());
}

TEST_F(CollectionPlanTest, HandsOverEachVolumeOfThreeRoles) {
  volumes->volumes = {{16, "P1", "/mnt/P1"},
                      {16, "P2", std::nullopt},
                      {192, "U1", "/mnt/U1"},
                      {320, "H1", "/mnt/H1"},
                      {64, "X", "/mnt/X"}};
  runToEnd();
  EXPECT_THAT(volumes->rolesAsked(), ElementsAre(16, 192, 320));
  std::vector<std::string> uuids;
  for (const auto& request : volumes->requests()) {
    uuids.push_back(request.uuid);
    EXPECT_TRUE(request.performOnlyIfMountAvailable);
    EXPECT_EQ(request.group, host->jobs().front().group);
    EXPECT_EQ(request.qos, QOSClass::utility);
  }
  EXPECT_THAT(uuids, ElementsAre("P1", "P2", "U1", "H1"));
  EXPECT_TRUE(queued("Volume Contents/Preboot/P1.log"));
  EXPECT_FALSE(queued("Volume Contents/Preboot/P2.log"));
  EXPECT_TRUE(queued("Volume Contents/Update/U1.log"));
}

TEST_F(CollectionPlanTest, CollectsNoVolumeWhenTheRegistryCannotBeAsked) {
  volumes->registryReachable = false;
  runToEnd();
  expectRows(onABareMachine());
}

TEST_F(CollectionPlanTest, FindsTheVolumesOnlyWhenItsEarlyJobsAreQueued) {
  giveEverything();
  host->hold("stallscope.txt");
  start();
  platform.workQueues().settle();
  EXPECT_THAT(volumes->rolesAsked(), IsEmpty());
}

TEST_F(CollectionPlanTest, GivesTheReportsToTheirJobs) {
  provenance = QSData("factory");
  properties = QSData("companion");
  runToEnd();
  EXPECT_EQ(WorkOutcome(host->job("ProvenanceDiagnosticReport.plist")->work).text(), "factory");
  EXPECT_EQ(WorkOutcome(host->job("RemoteDeviceInformation.plist")->work).text(), "companion");
}

TEST_F(CollectionPlanTest, ReadsTheRotatedDiskLogs) {
  platform.fileSystem().addFile("/private/var/log/stw/stw.log.1", "rotated");
  runToEnd();
  EXPECT_EQ(WorkOutcome(host->job("stw.log")->work).text(), "rotated");
}

TEST_F(CollectionPlanTest, AsksTheSystemForThePreOSLog) {
  platform.hostInformation().failControl("kern.preoslog", 1);
  runToEnd();
  EXPECT_EQ(WorkOutcome(host->job("Logs/pre_os.log")->work).error.code, 1);
}

TEST_F(CollectionPlanTest, RunsTheWindowServersTool) {
  runToEnd();
  const WorkOutcome outcome(host->job("Graphics/paneinfo.bin")->work);
  ASSERT_EQ(platform.processLauncher().requests().size(), 1U);
  EXPECT_EQ(platform.processLauncher().requests()[0].executablePath,
            "/System/Library/PrivateFrameworks/Glasswork.framework/Resources/paneinfo");
}

}  // namespace
}  // namespace quillsift
