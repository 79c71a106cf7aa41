#include "daemon/QSServiceClient.h"
#include "tests/daemon/DaemonFixture.h"

namespace quillsift {
namespace {

class QSServiceClientTest : public DaemonFixture {
 protected:
  // The answer to a request, once it is there.
  std::vector<WireValue> ask(FakeServiceConnection& connection, const std::string& method,
                             std::vector<WireValue> arguments = {}) {
    const auto request = connection.request(method, std::move(arguments));
    for (;;) {
      const std::size_t received = connection.received().size();
      if (auto reply = connection.reply(request)) return *reply;
      connection.waitForReceived(received + 1);
    }
  }
};

TEST_F(QSServiceClientTest, AnswersAQueryOfAnEmptySession) {
  const auto connection = connect();
  const auto reply = ask(*connection, wire::kQueryJobStatusInformation);
  ASSERT_EQ(reply.size(), 2u);
  EXPECT_TRUE(reply[0].as<WireArray>()->empty());
  EXPECT_TRUE(reply[1].as<WireArray>()->empty());
}

TEST_F(QSServiceClientTest, AnswersAQueryWithEveryJobAndTheDate) {
  const auto connection = connect();
  runSession();
  const auto reply = ask(*connection, wire::kQueryJobStatusInformation);
  EXPECT_EQ(reply[0].as<WireArray>()->size(), daemon_->getCurrentJobInfosWithDate(nullptr).size());
  EXPECT_EQ(reply[1], WireValue(WireArray{WireValue(1700000000.0)}));
}

TEST_F(QSServiceClientTest, AnswersTheFirstStartWithTrueAndTheSecondWithFalse) {
  const auto connection = connect();
  platform_.processLauncher().script(kEarlyProgram, {.hangs = true});
  EXPECT_EQ(ask(*connection, wire::kStartQuillsift), std::vector<WireValue>{WireValue(true)});
  EXPECT_EQ(ask(*connection, wire::kStartQuillsift), std::vector<WireValue>{WireValue(false)});
}

TEST_F(QSServiceClientTest, OnlyQuestionsComeFirst) {
  const auto connection = connect();
  ask(*connection, wire::kQueryJobStatusInformation);
  EXPECT_EQ(platform_.workQueues().promptTasks(), 1);
  ask(*connection, wire::kStartQuillsift);
  platform_.workQueues().drain();
  ask(*connection, wire::kClearQuillsiftData);
  connection->request(wire::kSaveQuillsift,
                      {WireValue(output("x.tgz")), WireValue(true), WireValue(true)});
  platform_.workQueues().drain();
  EXPECT_EQ(platform_.workQueues().promptTasks(), 1);
}

TEST_F(QSServiceClientTest, CarriesOutARequestThatWantsNoReply) {
  const auto connection = connect();
  connection->request(wire::kStartQuillsift, {}, /*wantsReply=*/false);
  platform_.workQueues().drain();
  EXPECT_TRUE(daemon_->lastDiagnoseFinishedDate());
  connection->request(wire::kClearQuillsiftData, {}, /*wantsReply=*/false);
  platform_.workQueues().drain();
  EXPECT_FALSE(daemon_->lastDiagnoseFinishedDate());
  for (const auto& message : connection->received())
    EXPECT_FALSE(message.isReply);
}

TEST_F(QSServiceClientTest, AnswersAClear) {
  const auto connection = connect();
  runSession();
  EXPECT_TRUE(ask(*connection, wire::kClearQuillsiftData).empty());
  EXPECT_TRUE(daemon_->getCurrentJobInfosWithDate(nullptr).empty());
}

TEST_F(QSServiceClientTest, LetsARequestGoUnansweredForWhichThereIsNoMemory) {
  const auto connection = connect();
  platform_.workQueues().refuseMemory("io.vantor.quillsift.unmount_queue");
  const auto request = connection->request(wire::kClearQuillsiftData, {});
  platform_.workQueues().drain();
  EXPECT_FALSE(connection->reply(request));
  EXPECT_EQ(connection->requestsInFlight(), 0u);
  EXPECT_TRUE(platform_.systemLog().contains("Out of memory: a client's request was dropped."));
}

TEST_F(QSServiceClientTest, RequestsRunOnTheWorkerQueueOfTheReceivingThread) {
  const auto connection = connect();
  const ScopedQOS urgent(QOSClass::userInitiated);
  QOSClass seen{};
  platform_.processLauncher().onLaunch([](FakeChild&) {});
  platform_.outputFiles().onCall([&](const RecordingOutputFiles::Call&) { seen = currentQOS(); });
  connection->request(wire::kSaveQuillsift,
                      {WireValue(output("x.tgz")), WireValue(true), WireValue(true)});
  platform_.workQueues().drain();
  EXPECT_EQ(seen, QOSClass::userInitiated);
}

TEST_F(QSServiceClientTest, ARequestIsInFlightUntilItIsDone) {
  const auto connection = connect();
  daemon_->quillsiftSaveLock().lock();
  connection->request(wire::kClearQuillsiftData, {});
  EXPECT_EQ(connection->requestsInFlight(), 1u);
  daemon_->quillsiftSaveLock().unlock();
  platform_.workQueues().drain();
  EXPECT_EQ(connection->requestsInFlight(), 0u);
}

TEST_F(QSServiceClientTest, NotificationsArriveInTheOrderIssued) {
  const auto connection = connect();
  const auto client = daemon_->clients().snapshot()->front();
  for (int i = 0; i < 500; ++i)
    client->reportSaveProgress(i, 1, "x");
  platform_.workQueues().drain();
  const auto reports = connection->notifications(wire::kReportSaveProgress);
  ASSERT_EQ(reports.size(), 500u);
  for (int i = 0; i < 500; ++i) {
    EXPECT_EQ(reports[static_cast<std::size_t>(i)].at(0), WireValue(static_cast<double>(i)));
  }
}

TEST_F(QSServiceClientTest, AClientThatLeavesDuringASessionIsSkippedAndTheSessionGoesOn) {
  const auto leaving = connect(1);
  const auto staying = connect(2);
  startHangingSession();
  staying->waitForReceived(4);
  const auto queue = daemon_->clients().snapshot()->front()->clientQueue();
  leaving->fireInvalidation();
  queue->sync([] {});
  EXPECT_EQ(daemon_->clients().snapshot()->size(), 1u);
  const auto heard = leaving->received().size();
  release();
  EXPECT_EQ(leaving->received().size(), heard);
  EXPECT_GT(staying->received().size(), heard);
  EXPECT_TRUE(daemon_->lastDiagnoseFinishedDate());
}

}  // namespace
}  // namespace quillsift
