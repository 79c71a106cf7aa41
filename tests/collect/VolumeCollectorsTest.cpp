#include <gmock/gmock.h>

#include <optional>
#include <utility>

#include "collect/VolumeCollectors.h"
#include "tests/collect/PlanFixture.h"

namespace quillsift {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr const char* kUUID = "1C0E1B2A-0000-4000-8000-00000000000A";
constexpr const char* kMount = "/private/tmp/MOUNT";

class VolumeCollectorsTest : public PlanFixture {
 protected:
  void add(const std::string& path, std::string content = "") {
    platform.fileSystem().addFile(path, std::move(content));
  }
  // Runs a collector the way the plan does, in the session group at utility class.
  void collect(VolumeCollector collector, std::optional<std::string> mountPoint = kMount,
               bool didMount = false) {
    session_ = session();
    platform.workQueues().global(QOSClass::utility).asyncInGroup(session_.group, [=, this] {
      collector(session_, kUUID, mountPoint, didMount);
      host->note("collected");
    });
    platform.workQueues().settle();
  }
  bool sessionGroupIsEmpty() { return session_.group->waitFor(std::chrono::nanoseconds(0)); }

  CollectionSession session_;
};

TEST_F(VolumeCollectorsTest, DoNothingWithoutAMountPoint) {
  for (const auto collector : {collectPrebootVolume, collectUpdateVolume, collectHardwareVolume}) {
    collect(collector, std::nullopt, true);
  }
  EXPECT_THAT(host->jobs(), IsEmpty());
  EXPECT_THAT(host->events(), ElementsAre("collected", "collected", "collected"));
}

TEST_F(VolumeCollectorsTest, RegisterAVolumeThatWasMountedForThemBeforeAnyJob) {
  collect(collectPrebootVolume, kMount, true);
  EXPECT_EQ(host->events().at(0), "unmount /private/tmp/MOUNT");
}

TEST_F(VolumeCollectorsTest, LeaveAVolumeAloneThatWasMountedBefore) {
  collect(collectPrebootVolume, "/mnt", false);
  EXPECT_FALSE(happened("unmount /mnt"));
}

TEST_F(VolumeCollectorsTest, JobsBelongToAGroupOfTheCollectorAlone) {
  collect(collectPrebootVolume);
  const Job job = host->jobs().at(0);
  EXPECT_NE(job.group, session_.group);
  EXPECT_EQ(job.uuid, sessionUUID.text());
}

TEST_F(VolumeCollectorsTest, WaitAMinuteForTheirJobs) {
  host->hold("Volume Contents/Preboot/" + std::string(kUUID) + ".log");
  collect(collectPrebootVolume);
  EXPECT_FALSE(sessionGroupIsEmpty());
  advance(59);
  EXPECT_FALSE(happened("collected"));
  advance(1);
  EXPECT_TRUE(happened("collected"));
  EXPECT_TRUE(sessionGroupIsEmpty());
  EXPECT_THAT(platform.systemLog().lines(), IsEmpty());
}

TEST_F(VolumeCollectorsTest, ReturnAsSoonAsTheirJobsHaveEnded) {
  const std::string listing = "Volume Contents/Preboot/" + std::string(kUUID) + ".log";
  host->hold(listing);
  collect(collectPrebootVolume);
  host->finish(listing);
  platform.workQueues().settle();
  EXPECT_TRUE(happened("collected"));
}

TEST_F(VolumeCollectorsTest, EndQuietlyOnceTheHostIsGone) {
  CollectionSession orphan = session();
  orphan.host.reset();
  collectPrebootVolume(orphan, kUUID, kMount, true);
  EXPECT_THAT(host->events(), IsEmpty());
}

using PrebootVolumeTest = VolumeCollectorsTest;

TEST_F(PrebootVolumeTest, ListsTheVolume) {
  collect(collectPrebootVolume);
  ASSERT_EQ(host->jobs().size(), 1U);
  const Job job = host->jobs().at(0);
  EXPECT_EQ(job.kind, Kind::command);
  EXPECT_EQ(job.path, "/bin/ls");
  EXPECT_THAT(job.arguments, ElementsAre("-la@OR", kMount));
  EXPECT_EQ(job.relativePath, "Volume Contents/Preboot/" + std::string(kUUID) + ".log");
  EXPECT_FALSE(job.sensitive);
  EXPECT_EQ(job.qos, QOSClass::utility);
}

TEST_F(PrebootVolumeTest, ArchivesThePreLoginDataOfEachTopDirectoryUnderOneName) {
  platform.fileSystem().addDirectory(std::string(kMount) + "/A");
  platform.fileSystem().addDirectory(std::string(kMount) + "/A/PreLoginData");
  platform.fileSystem().addDirectory(std::string(kMount) + "/B");
  platform.fileSystem().addDirectory(std::string(kMount) + "/B/PreLoginData");
  collect(collectPrebootVolume);
  const auto jobs = host->jobs();
  ASSERT_EQ(jobs.size(), 3U);
  const std::string name = "Logs/Preboot/" + std::string(kUUID) + " [PreLoginData].tar";
  for (const std::size_t i : {1U, 2U}) {
    EXPECT_EQ(jobs[i].kind, Kind::command);
    EXPECT_EQ(jobs[i].path, "/usr/bin/tar");
    EXPECT_EQ(jobs[i].relativePath, name);
    EXPECT_TRUE(jobs[i].sensitive);
    EXPECT_EQ(jobs[i].qos, QOSClass::utility);
  }
  EXPECT_THAT(jobs[1].arguments,
              ElementsAre("-cf", "-", "-C", std::string(kMount) + "/A/PreLoginData", "."));
  EXPECT_THAT(jobs[2].arguments,
              ElementsAre("-cf", "-", "-C", std::string(kMount) + "/B/PreLoginData", "."));
}

TEST_F(PrebootVolumeTest, LooksForThatNameRightBelowTheTopOnly) {
  platform.fileSystem().addDirectory(std::string(kMount) + "/PreLoginData");
  platform.fileSystem().addDirectory(std::string(kMount) + "/A");
  add(std::string(kMount) + "/A/deeper/PreLoginData/file");
  add(std::string(kMount) + "/A/preloginData");
  collect(collectPrebootVolume);
  EXPECT_EQ(host->jobs().size(), 1U);
}

TEST_F(PrebootVolumeTest, DoesNotFollowLinks) {
  platform.fileSystem().addDirectory("/elsewhere");
  add("/elsewhere/PreLoginData/file");
  platform.fileSystem().addLink(std::string(kMount) + "/A", "/elsewhere");
  collect(collectPrebootVolume);
  EXPECT_EQ(host->jobs().size(), 1U);
  EXPECT_THAT(platform.fileSystem().operations(),
              testing::Not(testing::Contains(
                  MemoryFileSystem::Operation{"entryNames", std::string(kMount) + "/A"})));
}

TEST_F(PrebootVolumeTest, ArchivesNothingBehindALink) {
  platform.fileSystem().addDirectory(std::string(kMount) + "/A");
  platform.fileSystem().addLink(std::string(kMount) + "/A/PreLoginData", "/");
  collect(collectPrebootVolume);
  EXPECT_EQ(host->jobs().size(), 1U);
  EXPECT_TRUE(platform.systemLog().contains("Not following the link '" + std::string(kMount) +
                                            "/A/PreLoginData' of a volume."));
}

class UpdateVolumeTest : public VolumeCollectorsTest {
 protected:
  // Collects a volume with this one file; what becomes of it, but for the listing.
  std::optional<Job> collected(const std::string& name) {
    add(std::string(kMount) + "/" + name);
    collect(collectUpdateVolume);
    const auto jobs = host->jobs();
    if (jobs.size() != 2) return std::nullopt;
    EXPECT_EQ(jobs[1].kind, Kind::copy);
    EXPECT_EQ(jobs[1].path, std::string(kMount) + "/" + name);
    EXPECT_EQ(jobs[1].relativePath, "Uplift/Update Volumes/" + std::string(kUUID) + "/" + name);
    EXPECT_EQ(jobs[1].qos, QOSClass::utility);
    return jobs[1];
  }
  void expectPublic(const std::string& name) {
    const auto job = collected(name);
    ASSERT_TRUE(job.has_value()) << name;
    EXPECT_FALSE(job->sensitive);
  }
  void expectSkipped(const std::string& name) { EXPECT_FALSE(collected(name).has_value()) << name; }
};

TEST_F(UpdateVolumeTest, CopiesNothingBehindALink) {
  add("/etc/shadow");
  for (const char* name : {"mo.log", "restore.log", "last_update_result.plist"})
    platform.fileSystem().addLink(std::string(kMount) + "/" + name, "/etc/shadow");
  collect(collectUpdateVolume);
  EXPECT_EQ(host->jobs().size(), 1U);
}

TEST_F(UpdateVolumeTest, ListsTheVolume) {
  collect(collectUpdateVolume);
  ASSERT_EQ(host->jobs().size(), 1U);
  const Job job = host->jobs().at(0);
  EXPECT_EQ(job.path, "/usr/bin/find");
  EXPECT_THAT(job.arguments, ElementsAre("-Px", kMount, "-ls"));
  EXPECT_EQ(job.relativePath, "Volume Contents/Update/" + std::string(kUUID) + ".log");
  EXPECT_FALSE(job.sensitive);
  EXPECT_EQ(job.qos, QOSClass::utility);
}

TEST_F(UpdateVolumeTest, CopiesTheModificationLog) {
  expectPublic("mo.log");
}
TEST_F(UpdateVolumeTest, CopiesLogsThatBeginWithMendd) {
  expectPublic("mendd-7.Log");
}
TEST_F(UpdateVolumeTest, ComparesThatBeginningExactly) {
  expectSkipped("Mendd-7.log");
}
TEST_F(UpdateVolumeTest, CopiesTheRestoreLogInAnyCaseOfItsExtension) {
  expectPublic("restore.LOG");
}
TEST_F(UpdateVolumeTest, ComparesTheBaseNameExactly) {
  expectSkipped("Restore.log");
}
TEST_F(UpdateVolumeTest, CopiesTheLastResult) {
  expectPublic("last_update_result.PList");
}
TEST_F(UpdateVolumeTest, SkipsFirmwareVariablesOnOtherBuilds) {
  expectSkipped("nvram.plist");
}
TEST_F(UpdateVolumeTest, CopiesFirmwareVariablesOfAnInternalBuildAsSensitive) {
  internal = true;
  const auto job = collected("nvram.plist");
  ASSERT_TRUE(job.has_value());
  EXPECT_TRUE(job->sensitive);
}
TEST_F(UpdateVolumeTest, SkipsFilesWithoutExtension) {
  expectSkipped("mendd-");
}
TEST_F(UpdateVolumeTest, SkipsOtherFiles) {
  expectSkipped("mendd-7.txt");
}

TEST_F(UpdateVolumeTest, ReadsTheTopOnly) {
  add(std::string(kMount) + "/below/restore.log");
  collect(collectUpdateVolume);
  EXPECT_EQ(host->jobs().size(), 1U);
}

TEST_F(UpdateVolumeTest, NamesAreTextWhateverTheBytes) {
  add(std::string(kMount) + "/mendd-\xFF.log");
  collect(collectUpdateVolume);
  const Job job = host->jobs().at(1);
  EXPECT_EQ(job.path, std::string(kMount) + "/mendd-\xFF.log");
  EXPECT_EQ(job.relativePath,
            "Uplift/Update Volumes/" + std::string(kUUID) + "/mendd-\xEF\xBF\xBD.log");
}

using HardwareVolumeTest = VolumeCollectorsTest;

TEST_F(HardwareVolumeTest, CopiesNothingBehindALink) {
  add("/var/elsewhere/logs/secret");
  platform.fileSystem().addLink(std::string(kMount) + "/Activator", "/var/elsewhere");
  collect(collectHardwareVolume);
  EXPECT_THAT(host->jobs(), IsEmpty());
  platform.fileSystem().remove(std::string(kMount) + "/Activator");
  add(std::string(kMount) + "/Activator/logs/kept");
  platform.fileSystem().addLink(std::string(kMount) + "/Activator/logs/link",
                                "/var/elsewhere/logs/secret");
  collect(collectHardwareVolume);
  EXPECT_EQ(host->jobs().size(), 1U);
}

TEST_F(HardwareVolumeTest, CopiesEveryEntryOfTheActivationLogs) {
  add(std::string(kMount) + "/Activator/logs/one.log");
  add(std::string(kMount) + "/Activator/logs/.two");
  add(std::string(kMount) + "/Activator/logs/below/three");
  add(std::string(kMount) + "/Activator/other");
  collect(collectHardwareVolume);
  const std::string directory = "Hardware Volumes/" + std::string(kUUID) + "/";
  EXPECT_THAT(relativePaths(),
              UnorderedElementsAre(directory + "one.log", directory + ".two", directory + "below"));
  const Job job = host->job(directory + "one.log").value();
  EXPECT_EQ(job.kind, Kind::copy);
  EXPECT_EQ(job.path, std::string(kMount) + "/Activator/logs/one.log");
  EXPECT_TRUE(job.sensitive);
  EXPECT_EQ(job.qos, QOSClass::utility);
}

TEST_F(HardwareVolumeTest, QueuesNothingWithoutActivationLogsAndWaitsForNothing) {
  collect(collectHardwareVolume);
  EXPECT_THAT(host->jobs(), IsEmpty());
  EXPECT_TRUE(happened("collected"));
  EXPECT_THAT(platform.workQueues().waitLimits(), ElementsAre(std::chrono::seconds(60)));
}

}  // namespace
}  // namespace quillsift
