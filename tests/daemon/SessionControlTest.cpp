#include <algorithm>
#include <atomic>
#include <future>
#include <new>
#include <thread>

#include "daemon/QSServiceClient.h"
#include "tests/daemon/DaemonFixture.h"

namespace quillsift {
namespace {

using std::chrono::seconds;
using Names = std::vector<std::string>;

constexpr const char* kRunQueueLabel = "io.vantor.quillsiftd.QSRunQueue";
constexpr const char* kUnmountQueueLabel = "io.vantor.quillsift.unmount_queue";

class SessionControlTest : public DaemonFixture {
 protected:
  SessionControlTest() {
    platform_.mounts().add("/dev/sda1", "/private/tmp/A");
    platform_.mounts().add("/dev/sda2", "/private/tmp/B");
  }

  // Mount points that somebody tried to unmount and has.
  std::vector<std::string> unmounted() {
    std::vector<std::string> gone{"/private/tmp/A", "/private/tmp/B"};
    for (const MountTableEntry& entry : platform_.mounts().table()) {
      std::erase(gone, entry.mountedOn);
    }
    return gone;
  }
};

TEST_F(SessionControlTest, AStartIsAcceptedAndASecondRefusedWhileItRuns) {
  EXPECT_FALSE(daemon_->currentlyTakingQuillsift());
  startHangingSession();
  EXPECT_TRUE(daemon_->currentlyTakingQuillsift());
  EXPECT_FALSE(start());
  release();
  EXPECT_FALSE(daemon_->currentlyTakingQuillsift());
  EXPECT_TRUE(start());
}

TEST_F(SessionControlTest, TheFlagMayBeLeftOut) {
  daemon_->takeQuillsift(nullptr);
  platform_.workQueues().drain();
  EXPECT_TRUE(daemon_->lastDiagnoseFinishedDate());
}

TEST_F(SessionControlTest, OfManyStartsAtOnceExactlyOneIsAccepted) {
  platform_.processLauncher().script(kEarlyProgram, {.hangs = true});
  std::atomic<int> accepted = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      if (start()) ++accepted;
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(accepted, 1);
}

TEST_F(SessionControlTest, ClientsHearOfTheStartAndOfEveryJobTwice) {
  const auto connection = connect();
  runSession();
  const Names names = notificationNames(*connection);
  ASSERT_FALSE(names.empty());
  EXPECT_EQ(names.front(), "quillsiftStarted");
  EXPECT_EQ(withoutJobs(names), Names{"quillsiftStarted"});
  const auto jobs = daemon_->getCurrentJobInfosWithDate(nullptr).size();
  EXPECT_GT(jobs, 30u);
  EXPECT_EQ(names.size(), 1 + 2 * jobs);
}

TEST_F(SessionControlTest, AStartAfterAFinishedSessionClearsItFirst) {
  runSession();
  const auto connection = connect();
  platform_.processLauncher().script(kEarlyProgram, {.hangs = true});
  ASSERT_TRUE(start());
  platform_.workQueues().waitForParked(1);
  connection->waitForReceived(2);
  EXPECT_EQ(withoutJobs(notificationNames(*connection)),
            (Names{"quillsiftDataCleared", "quillsiftStarted"}));
  std::optional<QSDate> date;
  EXPECT_LE(daemon_->getCurrentJobInfosWithDate(&date).size(), 2u);
  EXPECT_FALSE(date);
}

TEST_F(SessionControlTest, AClearWithoutASessionTellsNobodyButSchedulesTheUnmount) {
  const auto connection = connect();
  daemon_->clearRecoveryData();
  platform_.workQueues().drain();
  EXPECT_TRUE(notificationNames(*connection).empty());
  const auto timers = platform_.workQueues().pendingTimers();
  ASSERT_EQ(timers.size(), 1u);
  EXPECT_EQ(timers[0].label, "io.vantor.quillsift.unmount_queue");
  EXPECT_EQ(timers[0].delay, seconds(10));

  platform_.systemLog().clear();
  platform_.workQueues().advance(seconds(10));
  platform_.workQueues().drain();
  EXPECT_EQ(platform_.systemLog().lines(),
            (std::vector<LogLine>{
                {118,
                 "10 seconds since quillsiftd data was cleared, attempting to unmount volumes that "
                 "were mounted..."}}));
  EXPECT_TRUE(unmounted().empty());
}

TEST_F(SessionControlTest, AClearForgetsEverythingAndTellsTheClients) {
  runSession();
  const auto connection = connect();
  daemon_->clearRecoveryData();
  platform_.workQueues().drain();
  EXPECT_EQ(notificationNames(*connection), Names{"quillsiftDataCleared"});
  std::optional<QSDate> date;
  EXPECT_TRUE(daemon_->getCurrentJobInfosWithDate(&date).empty());
  EXPECT_FALSE(date);

  daemon_->clearRecoveryData();
  platform_.workQueues().drain();
  EXPECT_EQ(notificationNames(*connection).size(), 1u);  // there was no session any more
}

TEST_F(SessionControlTest, MemoryIsGivenBackOnceASessionIsForgotten) {
  start();
  platform_.workQueues().drain();
  int returns = 0;
  platform_.processMemory().onReturn = [&] { ++returns; };
  daemon_->clearRecoveryData();
  platform_.workQueues().drain();
  EXPECT_EQ(returns, 1);
}

TEST_F(SessionControlTest, AClearDuringASessionResetsAtOnceAndTheBodyGoesOn) {
  const auto connection = connect();
  startHangingSession();
  connection->waitForReceived(4);  // the start, two jobs begun, one ended
  daemon_->clearRecoveryData();
  EXPECT_FALSE(daemon_->currentlyTakingQuillsift());
  release();
  EXPECT_EQ(connection->received().size(), 5u);  // no late push
  EXPECT_EQ(notificationNames(*connection).back(), "quillsiftDataCleared");
  EXPECT_TRUE(daemon_->getCurrentJobInfosWithDate(nullptr).empty());
  EXPECT_FALSE(daemon_->lastDiagnoseFinishedDate());
  // The whole plan ran all the same.
  EXPECT_NE(platform_.processLauncher().child(kLateProgram), nullptr);
}

TEST_F(SessionControlTest, AnOldBodyDoesNotEndTheSessionThatFollowedAClear) {
  startHangingSession();
  const auto old = platform_.processLauncher().child(kEarlyProgram);
  daemon_->clearRecoveryData();
  std::promise<void> secondLaunched;
  platform_.processLauncher().onLaunch([&](FakeChild& child) {
    if (child.request().executablePath == kEarlyProgram) secondLaunched.set_value();
  });
  ASSERT_TRUE(start());  // waits on the run queue behind the old body
  EXPECT_FALSE(start());
  old->finish(0);
  secondLaunched.get_future().wait();  // so the old body has returned
  EXPECT_TRUE(daemon_->currentlyTakingQuillsift());
  EXPECT_FALSE(start());
  platform_.processLauncher().releaseAll();
  platform_.workQueues().drain();
  EXPECT_FALSE(daemon_->currentlyTakingQuillsift());
}

TEST_F(SessionControlTest, ADateStaysWhenASessionEndsWithoutAJob) {
  const QSDate before{1234.5};
  daemon_->setLastDiagnoseFinishedDate(before);
  bool stopped = false;
  daemon_->endSession([&] { stopped = true; });
  EXPECT_TRUE(stopped);
  EXPECT_EQ(daemon_->lastDiagnoseFinishedDate(), before);
}

class RegistryWithoutMemory : public FakeDeviceRegistry {
 public:
  std::unique_ptr<RegistryIterator> matchingObjects(const RegistryMatch&) override {
    throw std::bad_alloc();
  }
};

TEST_F(SessionControlTest, ASessionThatRunsOutOfMemoryIsOverAndCanBeSaved) {
  Platform::current().deviceRegistry = std::make_unique<RegistryWithoutMemory>();
  runSession();
  EXPECT_FALSE(daemon_->currentlyTakingQuillsift());
  const auto messages = platform_.systemLog().messages();
  EXPECT_NE(std::find(messages.begin(), messages.end(), "Session ended early. std::bad_alloc"),
            messages.end());
  EXPECT_TRUE(start());
  platform_.workQueues().drain();
}

TEST_F(SessionControlTest, AHangingCommandIsKilledInTheEndSequence) {
  platform_.processLauncher().script("/bin/df", {.output = "half", .hangs = true});
  ASSERT_TRUE(start());
  waitForPlanWait(4);
  waitForRunningJob("df_disks.txt");
  platform_.workQueues().advance(seconds(180));
  waitForPlanWait(5);
  EXPECT_FALSE(platform_.processLauncher().child("/bin/df")->wasKilled());
  platform_.workQueues().advance(seconds(30));
  platform_.workQueues().drain();
  EXPECT_TRUE(platform_.processLauncher().child("/bin/df")->wasKilled());
  EXPECT_FALSE(daemon_->currentlyTakingQuillsift());
  for (const QSJobInfo& info : daemon_->getCurrentJobInfosWithDate(nullptr)) {
    if (info.relativeFilePathAndName() != "df_disks.txt") continue;
    EXPECT_EQ(info.jobStatus(), 2);
    EXPECT_EQ(info.jobSize(), 4u);
  }
}

TEST_F(SessionControlTest, TheShieldIsDroppedAtTheEndIfItShows) {
  platform_.installerProgress().setShowing(true);
  runSession();
  EXPECT_EQ(platform_.installerProgress().hiddenFor(), std::vector<std::string>{"Quillsift"});
  runSession();
  EXPECT_EQ(platform_.installerProgress().hiddenFor().size(), 1u);
}

TEST_F(SessionControlTest, RecordedVolumesAreUnmountedTenSecondsAfterAClear) {
  daemon_->_unmountVolumeAtEndOfQuillsiftWithMountPoint("/private/tmp/B");
  daemon_->_unmountVolumeAtEndOfQuillsiftWithMountPoint("/private/tmp/A");
  daemon_->_unmountVolumeAtEndOfQuillsiftWithMountPoint("/private/tmp/A");
  platform_.mounts().fail("unmount", "/private/tmp/B", EBUSY);
  daemon_->clearRecoveryData();
  platform_.workQueues().advance(seconds(9));
  platform_.workQueues().drain();
  EXPECT_TRUE(unmounted().empty());
  platform_.workQueues().advance(seconds(1));
  platform_.workQueues().drain();
  EXPECT_EQ(unmounted(), std::vector<std::string>{"/private/tmp/A"});
  EXPECT_EQ(daemon_->mountPointsMountedByQuillsift(), std::set<std::string>{"/private/tmp/B"});
  EXPECT_TRUE(platform_.systemLog().contains(
      "Failed to unmount volume mounted by quillsift at path: '/private/tmp/B'. POSIX 16: "));
  EXPECT_EQ(platform_.systemLog().lines().back().priorityWord, 116);

  // Tried again ten seconds after the next clear.
  platform_.mounts().fail("unmount", "/private/tmp/B", 0);
  daemon_->clearRecoveryData();
  platform_.workQueues().advance(seconds(10));
  platform_.workQueues().drain();
  EXPECT_TRUE(daemon_->mountPointsMountedByQuillsift().empty());
}

TEST_F(SessionControlTest, ASessionStartedWithinTenSecondsKeepsTheVolumesMounted) {
  daemon_->_unmountVolumeAtEndOfQuillsiftWithMountPoint("/private/tmp/A");
  daemon_->clearRecoveryData();
  runSession();
  platform_.systemLog().clear();
  platform_.workQueues().advance(seconds(10));
  platform_.workQueues().drain();
  EXPECT_TRUE(unmounted().empty());
  EXPECT_EQ(daemon_->mountPointsMountedByQuillsift().size(), 1u);
  EXPECT_FALSE(platform_.systemLog().contains("attempting to unmount"));
}

TEST_F(SessionControlTest, AStartIsRefusedWhileASaveRunsAndAcceptedAfterIt) {
  daemon_->quillsiftSaveLock().lock();
  EXPECT_FALSE(start());
  daemon_->quillsiftSaveLock().unlock();
  EXPECT_TRUE(start());
}

TEST_F(SessionControlTest, AClearWaitsForARunningSave) {
  runSession();
  daemon_->quillsiftSaveLock().lock();
  std::atomic<bool> cleared = false;
  std::thread clearing([&] {
    daemon_->clearRecoveryData();
    cleared = true;
  });
  waitForSaveWaiters(1);
  EXPECT_FALSE(daemon_->getCurrentJobInfosWithDate(nullptr).empty());
  EXPECT_FALSE(cleared);
  daemon_->quillsiftSaveLock().unlock();
  clearing.join();
  EXPECT_TRUE(daemon_->getCurrentJobInfosWithDate(nullptr).empty());
}

TEST_F(SessionControlTest, AStartWithoutMemoryForItsBodyDoesNotCountAsRunning) {
  platform_.workQueues().refuseMemory(kRunQueueLabel);
  EXPECT_THROW(start(), std::bad_alloc);
  EXPECT_FALSE(daemon_->currentlyTakingQuillsift());
  platform_.workQueues().refuseMemory(kRunQueueLabel, false);
  EXPECT_TRUE(start());
}

TEST_F(SessionControlTest, AClearWithoutMemoryLeavesTheSessionAsItIs) {
  runSession();
  platform_.workQueues().refuseMemory(kUnmountQueueLabel);
  EXPECT_THROW(daemon_->clearRecoveryData(), std::bad_alloc);
  EXPECT_FALSE(daemon_->getCurrentJobInfosWithDate(nullptr).empty());
  EXPECT_TRUE(daemon_->lastDiagnoseFinishedDate());
  platform_.workQueues().refuseMemory(kUnmountQueueLabel, false);
  daemon_->clearRecoveryData();
  EXPECT_TRUE(daemon_->getCurrentJobInfosWithDate(nullptr).empty());
}

TEST_F(SessionControlTest, TheSnapshotListsEveryJobAndTheDateOfTheEnd) {
  std::optional<QSDate> date{QSDate{1}};
  EXPECT_TRUE(daemon_->getCurrentJobInfosWithDate(&date).empty());
  EXPECT_FALSE(date);
  startHangingSession();
  EXPECT_FALSE(daemon_->getCurrentJobInfosWithDate(&date).empty());
  EXPECT_FALSE(date);
  release();
  platform_.hostInformation().setRealTime({1700000000, 0});
  const auto infos = daemon_->getCurrentJobInfosWithDate(&date);
  EXPECT_EQ(date, QSDate{1700000000.0});
  EXPECT_EQ(infos.back().relativeFilePathAndName(), "Logs/install.log");
}

}  // namespace
}  // namespace quillsift
