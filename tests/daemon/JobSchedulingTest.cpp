#include <stdexcept>

#include "daemon/QSServiceClient.h"
#include "tests/daemon/DaemonFixture.h"

namespace quillsift {
namespace {

constexpr const char* kStaleUUID = "00000000-0000-4000-8000-000000000000";

class JobSchedulingTest : public DaemonFixture {
 protected:
  // The UUID that the running session's jobs carry: learnt from a job of the plan.
  void startAndHold() {
    startHangingSession();
    group_ = platform_.workQueues().makeGroup();
  }

  static WorkBlock wrap(std::string text) {
    return [text](std::shared_ptr<const QSJobEntry>* entry, QSError*) {
      *entry = std::make_shared<QSJobEntry>(QSData(text));
      return true;
    };
  }

  std::optional<QSJobInfo> info(const std::string& path) {
    for (const QSJobInfo& info : daemon_->getCurrentJobInfosWithDate(nullptr)) {
      if (info.relativeFilePathAndName() == path) return info;
    }
    return std::nullopt;
  }

  std::shared_ptr<WorkGroup> group_;
};

TEST_F(JobSchedulingTest, RefusesAJobWithBothOrNeitherOfPathAndWorkBlock) {
  const auto group = platform_.workQueues().makeGroup();
  const auto queue = [&](std::optional<std::string> path, WorkBlock work) {
    daemon_->__runJobAtPath(std::move(path), {}, std::move(work), "x", false, QOSClass::utility,
                            group, kStaleUUID);
  };
  try {
    queue("/bin/true", wrap("x"));
    FAIL();
  } catch (const std::logic_error& error) {
    EXPECT_STREQ(error.what(),
                 "QSServiceDaemon encountered a job being queued that contained both a path to "
                 "execute and a worker block.");
  }
  try {
    queue(std::nullopt, nullptr);
    FAIL();
  } catch (const std::logic_error& error) {
    EXPECT_STREQ(error.what(),
                 "QSServiceDaemon encountered a job being queued that contained neither a path nor "
                 "worker block to execute.");
  }
}

TEST_F(JobSchedulingTest, AJobOfAnotherSessionRunsAndLeavesNoTrace) {
  runSession();
  const auto before = daemon_->getCurrentJobInfosWithDate(nullptr).size();
  const auto connection = connect();
  const auto group = platform_.workQueues().makeGroup();
  bool ran = false;
  daemon_->_runJob(
      [&](auto*, auto*) {
        ran = true;
        return true;
      },
      "stale", false, QOSClass::utility, group, kStaleUUID);
  daemon_->_runJob(wrap("x"), "empty", false, QOSClass::utility, group, "");
  group->wait();
  platform_.workQueues().drain();
  EXPECT_TRUE(ran);
  EXPECT_EQ(daemon_->getCurrentJobInfosWithDate(nullptr).size(), before);
  EXPECT_TRUE(notificationNames(*connection).empty());
}

TEST_F(JobSchedulingTest, AJobOfNoSessionAtAllNeverMatches) {
  const auto group = platform_.workQueues().makeGroup();
  daemon_->_runJob(wrap("x"), "empty", false, QOSClass::utility, group, "");
  group->wait();
  EXPECT_TRUE(daemon_->getCurrentJobInfosWithDate(nullptr).empty());
}

TEST_F(JobSchedulingTest, EachClientGetsARecordOfItsOwnBeforeAndAfterTheRun) {
  const auto one = connect(1);
  const auto other = connect(2);
  platform_.processLauncher().script("/usr/bin/relquery", {.output = "four", .exitCode = 3});
  runSession();
  for (const auto& connection : {one, other}) {
    std::vector<WireDictionary> records;
    for (const auto& arguments : connection->notifications(wire::kJobStatusChanged)) {
      const auto& record = *arguments.at(0).as<WireDictionary>();
      if (*record.at("QSJobInfoRelativeFilePathAndName").as<std::string>() == "relquery.txt") {
        records.push_back(record);
      }
    }
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[1].at("QSJobInfoJobStatus"), WireValue(std::int64_t{2}));
    EXPECT_EQ(records[1].at("QSJobInfoSize"), WireValue(std::uint64_t{4}));
    EXPECT_EQ(records[1].at("QSJobInfoSensitive"), WireValue(false));
    EXPECT_EQ(records[0].at("QSJobInfoUUID"), records[1].at("QSJobInfoUUID"));
  }
}

TEST_F(JobSchedulingTest, AJobThatEndsAfterAClearIsNotPushedAgain) {
  const auto connection = connect();
  startHangingSession();
  connection->waitForReceived(4);  // the start, two jobs begun, one ended
  daemon_->clearRecoveryData();
  connection->waitForReceived(5);
  release();
  EXPECT_EQ(connection->received().size(), 5u);
}

TEST_F(JobSchedulingTest, JobsRunAtTheirClassAndSensitivity) {
  runSession();
  for (const LaunchRequest& request : platform_.processLauncher().requests()) {
    if (request.executablePath == kEarlyProgram) {
      EXPECT_EQ(request.qos, QOSClass::userInitiated);
    }
    if (request.executablePath == "/usr/sbin/bootmark") {
      EXPECT_EQ(request.qos, QOSClass::standard);
    }
    if (request.executablePath == kLateProgram) {
      EXPECT_EQ(request.qos, QOSClass::utility);
    }
  }
  EXPECT_FALSE(info("lsof.txt")->sensitive());
  EXPECT_TRUE(info("/drreg/DrService.txt")->sensitive());
}

TEST_F(JobSchedulingTest, AFileCopyKeepsDataAndAMissingFileIsAFailedJob) {
  const auto file = platform_.fileSystem().addFile("/var/log/system.log", "hello");
  runSession();
  EXPECT_EQ(info("Logs/system.log")->jobStatus(), 4);
  EXPECT_EQ(info("Logs/system.log")->jobSize(), 5u);
  const auto missing = info("Logs/rescueos.log");
  EXPECT_EQ(missing->jobStatus(), 3);
  EXPECT_NE(missing->failureReason()->find("/var/log/rescueos.log"), std::string::npos);
  EXPECT_EQ(missing->jobSize(), 0u);
}

TEST_F(JobSchedulingTest, ALaunchFailureShowsAsAFailedJobWithoutADate) {
  platform_.processLauncher().script("/usr/bin/relquery",
                                     {.launchError = QSError::posix(ENOENT, "/usr/bin/relquery")});
  runSession();
  EXPECT_EQ(info("relquery.txt")->jobStatus(), 3);
  EXPECT_FALSE(info("relquery.txt")->dateFinished());
  EXPECT_TRUE(info("lsof.txt")->dateFinished());
}

}  // namespace
}  // namespace quillsift
