// The steps of a session: their order, their waits, the companion, the end.

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <utility>

#include "collect/CollectionRunner.h"
#include "tests/collect/PlanFixture.h"

namespace quillsift {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kArchive = "companion.tar.gz";

class CollectionRunnerTest : public PlanFixture {
 protected:
  void giveCompanion() {
    companion = std::make_shared<FakeCoDiagnose>();
    companion->handle = std::make_shared<FakeReadHandle>();
    companion->setArchive(kArchive, true);
    companion->note = [host = host](const std::string& event) { host->note(event); };
  }
  std::string lastEvent() const { return host->events().back(); }
  std::vector<std::string> eventsFrom(const std::string& first) const {
    const auto events = host->events();
    return {std::find(events.begin(), events.end(), first), events.end()};
  }
  std::vector<std::string> messages() { return platform.systemLog().messages(); }
};

// --- order and waits

TEST_F(CollectionRunnerTest, AnnouncesTheSessionBeforeAnythingElse) {
  giveCompanion();
  companion->handle->deliver("");
  runToEnd();
  const auto events = host->events();
  ASSERT_GE(events.size(), 3U);
  EXPECT_EQ(events[0], "announce");
  EXPECT_EQ(events[1], "start");
  EXPECT_EQ(events[2], "job stallscope.txt");
}

TEST_F(CollectionRunnerTest, WaitsNowhereWhenEveryJobHasEnded) {
  runToEnd();
  EXPECT_EQ(platform.workQueues().now(), std::chrono::nanoseconds(0));
  EXPECT_THAT(platform.workQueues().waitLimits(),
              ElementsAre(seconds(30), seconds(10), seconds(20), seconds(180), seconds(30)));
  EXPECT_EQ(lastEvent(), "returned");
}

TEST_F(CollectionRunnerTest, StopsAtEachWaitForALateJobAndGoesOnWithoutIt) {
  host->hold("stallscope.txt");
  start();
  const struct {
    int wait;
    const char* before;
    const char* after;
  } steps[] = {{30, "job lsof.txt", "job ps.txt"},
               {10, "job ps_thread.txt", "job stw.log"},
               {20, "job stw.log", "job Logs/pre_os.log"},
               {180, "job RemoteDeviceInformation.plist", "job Logs/install.log"},
               {30, "job Logs/install.log", "end"}};
  for (const auto& step : steps) {
    SCOPED_TRACE(step.before);
    platform.workQueues().settle();
    EXPECT_EQ(lastEvent(), step.before);
    advance(step.wait - 1);
    EXPECT_EQ(lastEvent(), step.before);
    EXPECT_FALSE(happened(step.after));
    advance(1);
    EXPECT_TRUE(happened(step.after));
  }
  EXPECT_EQ(lastEvent(), "returned");
  EXPECT_EQ(platform.workQueues().now(), seconds(270));
}

TEST_F(CollectionRunnerTest, GoesOnAsSoonAsTheLastJobHasEnded) {
  host->hold("stallscope.txt");
  host->hold("lsof.txt");
  start();
  platform.workQueues().settle();
  host->finish("lsof.txt");
  platform.workQueues().settle();
  EXPECT_FALSE(happened("job ps.txt"));
  host->finish("stallscope.txt");
  platform.workQueues().drain();
  EXPECT_EQ(lastEvent(), "returned");
  EXPECT_EQ(platform.workQueues().now(), std::chrono::nanoseconds(0));
}

TEST_F(CollectionRunnerTest, WaitsForPicturesAndDiskLogsTogether) {
  internal = true;
  platform.displays().displays = {{.identifier = 1}};
  host->hold("screenshots/0.png");
  start();
  platform.workQueues().settle();
  EXPECT_TRUE(queued("stw.log"));
  EXPECT_FALSE(queued("Logs/pre_os.log"));
  advance(20);
  EXPECT_TRUE(queued("Logs/pre_os.log"));
}

TEST_F(CollectionRunnerTest, ExportsTheSystemLogAfterTheDiskLogs) {
  platform.fileSystem().addDescriptor(70, platform.fileSystem().addFile("/archive/1", "text"));
  platform.logArchiveBuilder().members = {{70, "1"}};
  host->hold("stw.log");
  start();
  platform.workQueues().settle();
  EXPECT_THAT(platform.logArchiveBuilder().limitsAsked, IsEmpty());
  advance(20);
  const auto events = eventsFrom("job stw.log");
  ASSERT_GE(events.size(), 3U);
  EXPECT_EQ(events[1], "job Logs/Recovery.logarchive/1");
  EXPECT_EQ(events[2], "job Logs/pre_os.log");
}

TEST_F(CollectionRunnerTest, WaitsForVolumeCollectorsButNotForTheirJobsBeyondThem) {
  volumes->volumes = {{16, "P", "/mnt/P", true}};
  host->hold("Volume Contents/Preboot/P.log");
  start();
  platform.workQueues().settle();
  EXPECT_TRUE(happened("unmount /mnt/P"));
  EXPECT_FALSE(queued("Logs/install.log"));
  advance(60);  // the collector gives up
  EXPECT_TRUE(queued("Logs/install.log"));
  EXPECT_EQ(lastEvent(), "returned");
}

TEST_F(CollectionRunnerTest, RunsAgainWithTheNextSessionsUUID) {
  runToEnd();
  const QSUUID second = QSUUID::random();
  platform.workQueues().makeSerialQueue("again", QOSClass::utility)->async([&] {
    CollectionRunner(services).run(second, host);
  });
  platform.workQueues().drain();
  EXPECT_EQ(host->jobs().front().uuid, sessionUUID.text());
  EXPECT_EQ(host->jobs().back().uuid, second.text());
  EXPECT_NE(host->jobs().front().group, host->jobs().back().group);
}

// --- the end

TEST_F(CollectionRunnerTest, EndsThenDropsTheShieldThenReturns) {
  runToEnd();
  EXPECT_THAT(eventsFrom("end"), ElementsAre("end", "ended", "shield", "returned"));
}

TEST_F(CollectionRunnerTest, InvalidatesTheCompanionInsideTheEndSequence) {
  giveCompanion();
  companion->handle->deliver("bytes");
  runToEnd();
  EXPECT_THAT(eventsFrom("end"), ElementsAre("end", "invalidate", "ended", "shield", "returned"));
}

TEST_F(CollectionRunnerTest, EndsInTimeWithWorkThatHangs) {
  host->hold("Graphics/paneinfo.bin");
  start();
  advance(180);
  advance(30);
  EXPECT_EQ(lastEvent(), "returned");
}

// --- accessories

TEST_F(CollectionRunnerTest, AsksForNotificationsOnlyWithoutAnAutosaveVolume) {
  runToEnd();
  EXPECT_THAT(platform.recoveryAgent().calls(), ElementsAre("enableNotifications"));
  EXPECT_EQ(volumes->autoSaveQuestions(), 1);
}

TEST_F(CollectionRunnerTest, ApprovesAccessoriesForTheAutosave) {
  volumes->autoSaveVolume = "UUID";
  runToEnd();
  EXPECT_THAT(platform.recoveryAgent().calls(), ElementsAre("enableAutomaticApproval"));
}

TEST_F(CollectionRunnerTest, GoesOnWhenNotificationsCannotBeHad) {
  platform.recoveryAgent().notificationsError = QSError::posix(38);
  runToEnd();
  EXPECT_THAT(platform.systemLog().lines(),
              testing::Contains(errorLine("Failed to enable TRM notifications. POSIX 38: Function "
                                          "not implemented")));
  EXPECT_EQ(lastEvent(), "returned");
}

TEST_F(CollectionRunnerTest, GoesOnWhenApprovalCannotBeHad) {
  volumes->autoSaveVolume = "UUID";
  platform.recoveryAgent().approvalError = QSError::posix(38);
  runToEnd();
  EXPECT_THAT(
      platform.systemLog().lines(),
      testing::Contains(errorLine("Failed to enable auto-approval of TRM devices for autosaving. "
                                  "POSIX 38: Function not implemented")));
  EXPECT_EQ(lastEvent(), "returned");
}

TEST_F(CollectionRunnerTest, AsksTheAgentBetweenTheProcessListsAndTheDiskLogs) {
  host->hold("ps.txt");
  start();
  platform.workQueues().settle();
  EXPECT_THAT(platform.recoveryAgent().calls(), IsEmpty());
  advance(10);
  EXPECT_EQ(platform.recoveryAgent().calls().size(), 1U);
}

TEST_F(CollectionRunnerTest, LogsNothingOfItsOwnOnABareMachine) {
  runToEnd();
  EXPECT_THAT(messages(),
              ElementsAre("Cannot construct QSCorvaneDiagnose. QSCorvaneErrorDomain 1: This device "
                          "is not a Tessel Lumina."));
}

// --- the companion

TEST_F(CollectionRunnerTest, GoesOnWithoutACompanion) {
  runToEnd();
  EXPECT_THAT(platform.systemLog().lines(),
              ElementsAre(warningLine("Cannot construct QSCorvaneDiagnose. QSCorvaneErrorDomain 1: "
                                      "This device is not a Tessel Lumina.")));
  EXPECT_EQ(platform.workQueues().queue("io.vantor.quillsiftd.CorvaneReadHandle"), nullptr);
  EXPECT_EQ(platform.workQueues().queues().size(), 1U);  // the run queue
  EXPECT_FALSE(happened("invalidate"));
}

TEST_F(CollectionRunnerTest, CollectsTheArchiveOfACompanionThatWorks) {
  giveCompanion();
  companion->handle->deliver("archive");
  runToEnd();
  const WorkOutcome outcome(host->job(kArchive)->work);
  EXPECT_EQ(outcome.text(), "archive");
  EXPECT_TRUE(outcome.succeeded);
}

TEST_F(CollectionRunnerTest, KeepsACompanionThatCannotStart) {
  giveCompanion();
  companion->startError = QSCorvaneDiagnoseError::errorWithCode(QSCorvaneErrorAlreadyRunning);
  companion->handle = nullptr;
  companion->setArchive(kArchive, false);
  runToEnd();
  EXPECT_TRUE(queued(kArchive));
  EXPECT_TRUE(happened("invalidate"));
  EXPECT_THAT(platform.systemLog().lines(),
              ElementsAre(errorLine("Failed to start Corvane omnitrawl. QSCorvaneErrorDomain 5: "
                                    "Operation failed because a Corvane diagnose is currently "
                                    "running.")));
}

TEST_F(CollectionRunnerTest, WaitsForAStalledCompanionOnlySoLong) {
  giveCompanion();
  start();
  platform.workQueues().settle();
  EXPECT_EQ(lastEvent(), "job RemoteDeviceInformation.plist");
  advance(180);
  EXPECT_TRUE(queued("Logs/install.log"));
  advance(30);
  // The end closes the handle, and only then does the reader queue its job.
  EXPECT_TRUE(queued(kArchive));
  const WorkOutcome outcome(host->job(kArchive)->work);
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_THAT(messages(),
              ElementsAre("Failed to archive Corvane diagnose. (Handle Valid: 0, Archive Valid: 1, "
                          "Archive Data: (null), Read Error: POSIX 9: Bad file descriptor)"));
}

TEST_F(CollectionRunnerTest, WaitsForTheJobOfTheCompanionInItsOwnGroup) {
  giveCompanion();
  companion->handle->deliver("archive");
  host->hold(kArchive);
  start();
  platform.workQueues().settle();
  EXPECT_TRUE(queued(kArchive));
  EXPECT_FALSE(queued("Logs/install.log"));  // its reader is a member of the session group
  host->finish(kArchive);
  platform.workQueues().drain();
  EXPECT_EQ(lastEvent(), "returned");
  EXPECT_EQ(platform.workQueues().now(), std::chrono::nanoseconds(0));
}

TEST_F(CollectionRunnerTest, LetsGoOfTheCompanionWhenTheSessionIsOver) {
  giveCompanion();
  companion->handle->deliver("archive");
  const std::weak_ptr<FakeCoDiagnose> weakly = companion;
  runToEnd();
  companion.reset();
  EXPECT_TRUE(weakly.expired());
}

TEST_F(CollectionRunnerTest, DoesNotKeepTheHostAliveForLateWork) {
  giveCompanion();
  companion->note = nullptr;
  auto other = std::make_shared<RecordingCollectionHost>();
  const std::weak_ptr<RecordingCollectionHost> weakly = other;
  platform.workQueues()
      .makeSerialQueue("run", QOSClass::utility)
      ->async(
          [this, other = std::move(other)] { CollectionRunner(services).run(sessionUUID, other); });
  platform.workQueues().settle();
  // The end finds no handle to close, so the reader stalls on.
  const auto handle = std::exchange(companion->handle, nullptr);
  advance(180);
  advance(30);
  EXPECT_TRUE(weakly.expired());
  handle->deliver("too late");
  platform.workQueues().drain();
}

}  // namespace
}  // namespace quillsift
