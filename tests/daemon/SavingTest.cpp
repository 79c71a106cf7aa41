#include <atomic>
#include <cerrno>
#include <new>
#include <optional>
#include <set>
#include <thread>

#include "daemon/QSServiceClient.h"
#include "platform/Text.h"
#include "tests/daemon/DaemonFixture.h"

namespace quillsift {
namespace {

using Names = std::vector<std::string>;

class SavingTest : public DaemonFixture {
 protected:
  // Saves as an archive; what the handler heard.
  std::optional<bool> save(const std::string& path, bool sensitive = true) {
    std::optional<bool> heard;
    daemon_->saveQuillsiftToDestination(path, true, sensitive,
                                        [&](bool started) { heard = started; });
    return heard;
  }

  // Saves as a directory.
  void saveDirectory(const std::string& path, bool sensitive = true) {
    daemon_->saveQuillsiftToDestination(path, false, sensitive, nullptr);
    platform_.workQueues().drain();
  }

  struct Report {
    double progress;
    std::int64_t state;
    std::string path;
    bool operator==(const Report&) const = default;
  };
  static std::vector<Report> reports(const FakeServiceConnection& connection) {
    std::vector<Report> reports;
    for (const auto& arguments : connection.notifications(wire::kReportSaveProgress)) {
      reports.push_back({*arguments[0].as<double>(), *arguments[1].as<std::int64_t>(),
                         *arguments[2].as<std::string>()});
    }
    return reports;
  }
};

TEST_F(SavingTest, ASaveWhileASessionRunsIsRefusedAndWritesNothing) {
  const auto connection = connect();
  startHangingSession();
  EXPECT_EQ(save(output("x.tgz")), false);
  EXPECT_TRUE(reports(*connection).empty());
  EXPECT_FALSE(std::filesystem::exists(output("x.tgz")));
}

TEST_F(SavingTest, ASaveOfAnEmptySessionWritesAnEmptyArchiveAndReportsIt) {
  const auto connection = connect();
  EXPECT_EQ(save(output("x.tgz")), true);
  platform_.workQueues().drain();
  EXPECT_EQ(reports(*connection), (std::vector<Report>{{0.0, 0, output("x.tgz.inprogress")},
                                                       {1.0, 1, output("x.tgz.inprogress")},
                                                       {1.0, 2, output("x.tgz")}}));
  EXPECT_TRUE(std::filesystem::exists(output("x.tgz")));
  EXPECT_FALSE(daemon_->quillsiftSaveLock().isHeld());
}

TEST_F(SavingTest, ASuccessfulSaveClearsTheSessionAfterItsLastReport) {
  runSession();
  const auto connection = connect();
  EXPECT_EQ(save(output("x.tgz")), true);
  platform_.workQueues().drain();
  EXPECT_TRUE(daemon_->getCurrentJobInfosWithDate(nullptr).empty());
  const auto names = notificationNames(*connection);
  EXPECT_EQ(names.back(), "quillsiftDataCleared");
  EXPECT_EQ(reports(*connection).back(), (Report{1.0, 2, output("x.tgz")}));
}

TEST_F(SavingTest, AFailedSaveKeepsTheSessionAndFreesTheLock) {
  runSession();
  const auto connection = connect();
  EXPECT_EQ(save("/no/such/directory/x.tgz"), true);
  platform_.workQueues().drain();
  EXPECT_FALSE(daemon_->getCurrentJobInfosWithDate(nullptr).empty());
  EXPECT_EQ(reports(*connection).back(), (Report{-1.0, 3, "/no/such/directory/x.tgz.inprogress"}));
  EXPECT_FALSE(daemon_->quillsiftSaveLock().isHeld());
  EXPECT_EQ(save(output("x.tgz")), true);
  EXPECT_TRUE(daemon_->getCurrentJobInfosWithDate(nullptr).empty());
}

TEST_F(SavingTest, TheHandlerHearsTrueBeforeAnythingIsWrittenAndMayBeLeftOut) {
  platform_.outputFiles().onCall([&](const RecordingOutputFiles::Call&) {
    EXPECT_TRUE(daemon_->quillsiftSaveLock().isHeld());
  });
  daemon_->saveQuillsiftToDestination(output("x.tgz"), true, true, [&](bool started) {
    EXPECT_TRUE(started);
    EXPECT_TRUE(daemon_->quillsiftSaveLock().isHeld());
    EXPECT_TRUE(platform_.outputFiles().calls().empty());
  });
  daemon_->saveQuillsiftToDestination(output("y.tgz"), true, true, nullptr);
  EXPECT_TRUE(std::filesystem::exists(output("y.tgz")));
}

TEST_F(SavingTest, ASecondSaveWaitsForTheFirstAndFindsTheSessionCleared) {
  runSession();
  int opened = 0;
  std::size_t jobsAtSecondOpen = 1;
  std::thread second;
  platform_.outputFiles().onCall([&](const RecordingOutputFiles::Call& call) {
    if (call.operation != "openForWriting") return;
    if (++opened == 2) {
      jobsAtSecondOpen = daemon_->getCurrentJobInfosWithDate(nullptr).size();
      return;
    }
    second = std::thread([this] { EXPECT_EQ(save(output("b.tgz")), true); });
    waitForSaveWaiters(1);
  });
  EXPECT_EQ(save(output("a.tgz")), true);
  second.join();
  EXPECT_EQ(opened, 2);
  EXPECT_EQ(jobsAtSecondOpen, 0u);
}

TEST_F(SavingTest, ASaveDoesNotClearTheSessionThatBeganWhileItRan) {
  // Before and after it has copied the list of jobs.
  for (const char* step : {"openForWriting", "renameAt"}) {
    runSession();
    const std::string path = output(std::string(step) + ".tgz");
    platform_.outputFiles().onCall([&](const RecordingOutputFiles::Call& call) {
      if (call.operation != step) return;
      // A start that had waited for an earlier save just when this one took the lock.
      daemon_->quillsiftSaveLock().unlock();
      EXPECT_TRUE(start());
      daemon_->quillsiftSaveLock().lock();
    });
    EXPECT_EQ(save(path), true);
    platform_.outputFiles().onCall({});
    platform_.workQueues().drain();
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_FALSE(daemon_->getCurrentJobInfosWithDate(nullptr).empty()) << step;
  }
}

TEST_F(SavingTest, ManySavesQueriesClearsAndStartsAtOnceAllEnd) {
  runSession();
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this, i] { save(output(std::to_string(i))); });
    threads.emplace_back([this] { daemon_->getCurrentJobInfosWithDate(nullptr); });
    threads.emplace_back([this] { daemon_->clearRecoveryData(); });
    threads.emplace_back([this] { start(); });
  }
  for (auto& thread : threads)
    thread.join();
  platform_.workQueues().drain();
  EXPECT_FALSE(daemon_->quillsiftSaveLock().isHeld());
  EXPECT_FALSE(daemon_->currentlyTakingQuillsift());
}

TEST_F(SavingTest, AStartIsRefusedDuringASaveAndAcceptedAfterIt) {
  bool acceptedDuring = true;
  platform_.outputFiles().onCall([&](const RecordingOutputFiles::Call& call) {
    if (call.operation == "openForWriting") acceptedDuring = start();
  });
  save(output("x.tgz"));
  EXPECT_FALSE(acceptedDuring);
  EXPECT_TRUE(start());
  platform_.workQueues().drain();
}

TEST_F(SavingTest, WhoHearsThatASaveHasClearedTheSessionCanStartAnother) {
  const auto connection = connect();
  const auto clears = [&] { return connection->notifications(wire::kQuillsiftDataCleared).size(); };
  std::atomic<bool> over = false;
  std::vector<std::thread> others;  // a lock that is fought for is given back slowly
  for (int i = 0; i < 3; ++i) {
    others.emplace_back([&] {
      while (!over)
        daemon_->currentlyTakingQuillsift();
    });
  }
  for (int round = 0; round < 100; ++round) {
    runSession();
    const std::size_t before = clears();
    std::thread listener([&] {
      while (clears() == before)
        std::this_thread::yield();
      EXPECT_TRUE(start());
    });
    save(output("x.tgz"));
    listener.join();
    platform_.workQueues().drain();
    daemon_->clearRecoveryData();
  }
  over = true;
  for (std::thread& other : others)
    other.join();
}

TEST_F(SavingTest, ASaveThatCannotBeWrittenInFullIsAFailure) {
  runSession();
  platform_.outputFiles().fail("flush", ENOSPC);
  const auto connection = connect();
  save(output("x.tgz"));
  platform_.workQueues().drain();
  EXPECT_EQ(reports(*connection).back().state, 3);
  EXPECT_FALSE(std::filesystem::exists(output("x.tgz")));
  EXPECT_FALSE(std::filesystem::exists(output("x.tgz.inprogress")));
  EXPECT_FALSE(daemon_->getCurrentJobInfosWithDate(nullptr).empty());
}

TEST_F(SavingTest, ADirectorySaveReportsItsStepsAndClearsTheSession) {
  runSession();
  const auto jobs = daemon_->getCurrentJobInfosWithDate(nullptr);
  ASSERT_FALSE(jobs.empty());
  const auto connection = connect();
  saveDirectory("/d");
  const auto told = reports(*connection);
  ASSERT_EQ(told.size(), jobs.size() + 2);
  EXPECT_EQ(told.front(), (Report{0.0, 0, "/d"}));
  EXPECT_EQ(told[1], (Report{0.05, 1, "/d"}));
  EXPECT_EQ(told.back(), (Report{1.0, 2, "/d"}));
  EXPECT_TRUE(daemon_->getCurrentJobInfosWithDate(nullptr).empty());
  EXPECT_EQ(notificationNames(*connection).back(), "quillsiftDataCleared");
  EXPECT_FALSE(platform_.outputTrees().files().empty());
  EXPECT_TRUE(platform_.outputFiles().calls().empty());
  EXPECT_FALSE(daemon_->quillsiftSaveLock().isHeld());
}

TEST_F(SavingTest, ADirectorySaveHoldsTheSaveLockAndLeavesOutWhatIsSensitive) {
  platform_.processLauncher().script(kEarlyProgram, {.output = "open files"});
  runSession();
  std::set<std::string> sensitive;
  for (const QSJobInfo& info : daemon_->getCurrentJobInfosWithDate(nullptr)) {
    if (info.sensitive())
      sensitive.insert(joinedPath("/d", info.relativeFilePathAndName().value_or("")));
  }
  ASSERT_FALSE(sensitive.empty());
  platform_.outputTrees().onCall([&](const MemoryOutputTrees::Call& call) {
    EXPECT_TRUE(daemon_->quillsiftSaveLock().isHeld());
    EXPECT_FALSE(sensitive.contains(call.path)) << call.path;
  });
  saveDirectory("/d", false);
  EXPECT_FALSE(platform_.outputTrees().files().empty());
}

TEST_F(SavingTest, AFailedDirectorySaveKeepsTheSessionAndFreesTheLock) {
  runSession();
  const auto connection = connect();
  for (const char* operation : {"makeDirectory", "makeParentOf", "writeFile"}) {
    platform_.outputTrees().fail(operation, ENOSPC);
    saveDirectory("/d");
    EXPECT_EQ(reports(*connection).back(), (Report{-1.0, 3, "/d"})) << operation;
    EXPECT_FALSE(daemon_->getCurrentJobInfosWithDate(nullptr).empty()) << operation;
    EXPECT_FALSE(daemon_->quillsiftSaveLock().isHeld()) << operation;
    EXPECT_TRUE(platform_.outputTrees().files().empty()) << operation;
    platform_.outputTrees().fail(operation, 0);
  }
  saveDirectory("/d");
  EXPECT_EQ(reports(*connection).back(), (Report{1.0, 2, "/d"}));
}

TEST_F(SavingTest, ADirectorySaveWhileASessionRunsIsRefusedAndWritesNothing) {
  startHangingSession();
  std::optional<bool> heard;
  daemon_->saveQuillsiftToDestination("/d", false, true, [&](bool started) { heard = started; });
  EXPECT_EQ(heard, false);
  EXPECT_TRUE(platform_.outputTrees().calls().empty());
}

TEST_F(SavingTest, ADirectorySaveOfAnEmptySessionMakesAnEmptyDirectory) {
  const auto connection = connect();
  saveDirectory("/d");
  EXPECT_EQ(reports(*connection), (std::vector<Report>{{0.0, 0, "/d"}, {1.0, 2, "/d"}}));
  EXPECT_EQ(platform_.outputTrees().directories(), std::set<std::string>{"/d"});
}

// In a process of its own: the firmware is asked once in a process.
class AutosaveTest : public SavingTest {
 protected:
  AutosaveTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  void nameTheVolume() {
    platform_.deviceRegistry().add("", "VantorVellumVolume",
                                   {{"UUID", std::string(kVolume)}, {"BSD Name", "sda2"}});
    platform_.mounts().add("/dev/sda2", directory_);
    platform_.deviceRegistry().setFirmwareVariable("QS_AUTO_SAVE_VOL_UUID", std::string(kVolume));
  }
  std::size_t archives() const {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory_))
      if (entry.path().extension() == ".tgz") ++count;
    return count;
  }
  [[noreturn]] void end() const {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
    std::_Exit(HasFailure() ? 1 : 0);
  }

  static constexpr const char* kVolume = "7F3B0C11-1A2B-4C3D-8E4F-0123456789AB";
};

TEST_F(AutosaveTest, SavesForNobodyToSeeAndKeepsTheSession) {
  const auto sessionSavesItself = [&] {
    nameTheVolume();
    const auto connection = connect();
    runSession();
    EXPECT_EQ(archives(), 1u);
    EXPECT_TRUE(reports(*connection).empty());
    EXPECT_FALSE(daemon_->getCurrentJobInfosWithDate(nullptr).empty());
    end();
  };
  EXPECT_EXIT(sessionSavesItself(), testing::ExitedWithCode(0), "");
}

TEST_F(AutosaveTest, QuestionsAreAnsweredMeanwhileAndTheSessionIsNotYetFinished) {
  const auto sessionSavesItself = [&] {
    nameTheVolume();
    std::optional<QSDate> date;
    std::size_t jobs = 0;
    platform_.outputFiles().onCall([&](const RecordingOutputFiles::Call&) {
      jobs = daemon_->getCurrentJobInfosWithDate(&date).size();
      EXPECT_FALSE(date);
    });
    runSession();
    EXPECT_GT(jobs, 0u);
    EXPECT_EQ(daemon_->getCurrentJobInfosWithDate(&date).size(), jobs);
    EXPECT_TRUE(date);
    end();
  };
  EXPECT_EXIT(sessionSavesItself(), testing::ExitedWithCode(0), "");
}

TEST_F(AutosaveTest, ThatFailsOfMemoryLeavesAFinishedSession) {
  const auto autosaveRunsOutOfMemory = [&] {
    nameTheVolume();
    platform_.outputFiles().onCall(
        [](const RecordingOutputFiles::Call&) { throw std::bad_alloc(); });
    runSession();
    EXPECT_EQ(archives(), 0u);
    EXPECT_TRUE(daemon_->lastDiagnoseFinishedDate());
    EXPECT_FALSE(daemon_->currentlyTakingQuillsift());
    EXPECT_FALSE(daemon_->quillsiftSaveLock().isHeld());
    EXPECT_FALSE(daemon_->getCurrentJobInfosWithDate(nullptr).empty());
    end();
  };
  EXPECT_EXIT(autosaveRunsOutOfMemory(), testing::ExitedWithCode(0), "");
}

TEST_F(AutosaveTest, WaitsForARunningSaveWithoutHinderingIt) {
  const auto sessionEndsDuringASave = [&] {
    nameTheVolume();
    startHangingSession();
    daemon_->quillsiftSaveLock().lock();
    platform_.processLauncher().child(kEarlyProgram)->finish(0);
    waitForSaveWaiters(1);
    EXPECT_TRUE(daemon_->currentlyTakingQuillsift());  // the lock is free
    EXPECT_EQ(archives(), 0u);
    daemon_->quillsiftSaveLock().unlock();
    platform_.workQueues().drain();
    EXPECT_EQ(archives(), 1u);
    end();
  };
  EXPECT_EXIT(sessionEndsDuringASave(), testing::ExitedWithCode(0), "");
}

TEST_F(SavingTest, WithoutAnAutosaveVolumeTheEndOfASessionWritesNothing) {
  runSession();
  EXPECT_TRUE(platform_.outputFiles().calls().empty());
  EXPECT_FALSE(platform_.systemLog().contains("autosave"));
}

}  // namespace
}  // namespace quillsift
