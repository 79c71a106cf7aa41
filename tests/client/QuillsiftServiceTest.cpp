#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "client/QuillsiftService.h"
#include "daemon/protocol/QSServiceProtocols.h"
#include "tests/doubles/FakeRemoteService.h"

namespace quillsift {
namespace {

using namespace std::chrono_literals;
using Kind = ServiceError::Kind;
using testing::_;
using testing::Field;
using testing::InSequence;
using testing::Property;

class MockObserver : public ServiceObserver {
 public:
  MOCK_METHOD(void, sessionStarted, (), (override));
  MOCK_METHOD(void, sessionCleared, (), (override));
  MOCK_METHOD(void, jobChanged, (const QSJobInfo&), (override));
  MOCK_METHOD(void, saveReported, (const SaveReport&), (override));
  MOCK_METHOD(void, unreadableNotification, (const std::string&), (override));
};

class QuillsiftServiceTest : public testing::Test {
 protected:
  QuillsiftServiceTest() {
    const auto connector = daemon_.connector();
    service_ = QuillsiftService::connect(*connector, "/run/socket", nullptr);
  }

  Kind connectFailingWith(int code) {
    daemon_.refuseConnections(code);
    const auto connector = daemon_.connector();
    ServiceError error;
    EXPECT_EQ(QuillsiftService::connect(*connector, "/run/socket", &error), nullptr);
    EXPECT_NE(error.text.find("/run/socket"), std::string::npos) << error.text;
    return error.kind;
  }

  Kind startFailingWith(int code) {
    daemon_.failNext(wire::kStartQuillsift, code);
    ServiceError error;
    EXPECT_FALSE(service_->start(&error));
    return error.kind;
  }

  Kind queryAnswered(std::vector<WireValue> results) {
    daemon_.answerNext(wire::kQueryJobStatusInformation,
                       [results](const auto&, QSError*) { return results; });
    ServiceError error;
    EXPECT_FALSE(service_->queryJobs(&error));
    return error.kind;
  }

  FakeRemoteDaemon daemon_;
  std::unique_ptr<QuillsiftService> service_;
};

TEST_F(QuillsiftServiceTest, SortsTheReasonsWhyItCannotConnect) {
  EXPECT_EQ(connectFailingWith(ENOENT), Kind::noDaemon);
  EXPECT_EQ(connectFailingWith(ECONNREFUSED), Kind::noDaemon);
  EXPECT_EQ(connectFailingWith(ENAMETOOLONG), Kind::noDaemon);
  EXPECT_EQ(connectFailingWith(EACCES), Kind::notAdmitted);
}

TEST_F(QuillsiftServiceTest, SortsTheReasonsWhyACallFails) {
  EXPECT_EQ(startFailingWith(ETIMEDOUT), Kind::timedOut);
  EXPECT_EQ(startFailingWith(ECONNRESET), Kind::disconnected);
  EXPECT_EQ(startFailingWith(ENOTCONN), Kind::disconnected);
  EXPECT_EQ(startFailingWith(EPIPE), Kind::disconnected);
  EXPECT_EQ(startFailingWith(EIO), Kind::failed);
}

TEST_F(QuillsiftServiceTest, ReadsJobsAndTheDate) {
  daemon_.jobs = {FakeRemoteDaemon::job("u1", "a.txt", 4, 10),
                  FakeRemoteDaemon::job("u2", "b.txt", 1)};
  daemon_.dateFinished = 1700000000.5;
  const auto snapshot = service_->queryJobs(nullptr);
  ASSERT_TRUE(snapshot);
  ASSERT_EQ(snapshot->jobs.size(), 2u);
  EXPECT_EQ(snapshot->jobs[0].relativeFilePathAndName(), "a.txt");
  EXPECT_EQ(snapshot->jobs[1].jobStatus(), 1);
  EXPECT_EQ(snapshot->dateFinished, QSDate{1700000000.5});
}

TEST_F(QuillsiftServiceTest, ReadsAnEmptySessionWithoutDate) {
  const auto snapshot = service_->queryJobs(nullptr);
  ASSERT_TRUE(snapshot);
  EXPECT_TRUE(snapshot->jobs.empty());
  EXPECT_FALSE(snapshot->dateFinished);
}

TEST_F(QuillsiftServiceTest, DoesNotTakeAnAnswerOfAnotherShape) {
  const WireValue list{WireArray{}};
  EXPECT_EQ(queryAnswered({}), Kind::failed);
  EXPECT_EQ(queryAnswered({list}), Kind::failed);
  EXPECT_EQ(queryAnswered({list, WireValue(1.0)}), Kind::failed);
  EXPECT_EQ(queryAnswered({WireValue(WireArray{WireValue(1.0)}), list}), Kind::failed);
  EXPECT_EQ(queryAnswered({list, WireValue(WireArray{WireValue("today")})}), Kind::failed);
  EXPECT_EQ(queryAnswered({list, WireValue(WireArray{WireValue(1.0), WireValue(2.0)})}),
            Kind::failed);
  const WireDictionary wrong = {{"QSJobInfoUUID", WireValue(1.0)}};
  EXPECT_EQ(queryAnswered({WireValue(WireArray{WireValue(wrong)}), list}), Kind::failed);

  daemon_.answerNext(wire::kStartQuillsift,
                     [](const auto&, QSError*) { return std::vector<WireValue>{WireValue(1.0)}; });
  ServiceError error;
  EXPECT_FALSE(service_->start(&error));
  EXPECT_EQ(error.kind, Kind::failed);
}

TEST_F(QuillsiftServiceTest, PassesOnWhetherTheDaemonAgreed) {
  daemon_.answerNext(wire::kStartQuillsift, false);
  EXPECT_EQ(service_->start(nullptr), false);
  EXPECT_EQ(service_->start(nullptr), true);
  EXPECT_TRUE(service_->clear(nullptr));
  EXPECT_EQ(daemon_.calls().back().method, "clearQuillsiftData");
}

TEST_F(QuillsiftServiceTest, SendsTheSaveWithItsThreeArguments) {
  EXPECT_EQ(service_->save("/x/a.tgz", true, false, nullptr), true);
  const auto& call = daemon_.calls().back();
  EXPECT_EQ(call.method, "saveQuillsiftToDestination");
  EXPECT_EQ(call.arguments,
            (std::vector<WireValue>{WireValue("/x/a.tgz"), WireValue(true), WireValue(false)}));
}

TEST_F(QuillsiftServiceTest, DeliversNotificationsInOrder) {
  MockObserver observer;
  service_->setObserver(&observer);
  const InSequence inOrder;
  EXPECT_CALL(observer, sessionStarted());
  EXPECT_CALL(observer, jobChanged(Property(&QSJobInfo::uuid, "u1")));
  EXPECT_CALL(observer, saveReported(Field(&SaveReport::state, SaveState::progress)));
  EXPECT_CALL(observer, sessionCleared());
  daemon_.started();
  daemon_.jobChanged(FakeRemoteDaemon::job("u1", "a.txt", 1));
  daemon_.saveReported(0.5, 1, "/x/a.tgz.inprogress");
  daemon_.cleared();
  EXPECT_EQ(service_->processEvents(1s, -1), QuillsiftService::Wake::event);
}

TEST_F(QuillsiftServiceTest, TellsOfNotificationsThatItCannotRead) {
  testing::StrictMock<MockObserver> observer;
  service_->setObserver(&observer);
  EXPECT_CALL(observer, unreadableNotification("somethingNew"));
  EXPECT_CALL(observer, unreadableNotification("jobStatusChangedWithInfo")).Times(2);
  EXPECT_CALL(observer, unreadableNotification("reportSaveProgress")).Times(3);
  daemon_.notify("somethingNew", {});
  daemon_.notify(wire::kJobStatusChanged, {});
  daemon_.notify(wire::kJobStatusChanged,
                 {WireValue(WireDictionary{{"QSJobInfoSize", WireValue("big")}})});
  daemon_.notify(wire::kReportSaveProgress, {WireValue(0.5)});
  daemon_.saveReported(0.5, 4, "/x");
  daemon_.saveReported(0.5, -1, "/x");
  service_->processEvents(1s, -1);
}

}  // namespace
}  // namespace quillsift
