#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "client/SessionWatcher.h"
#include "daemon/protocol/QSServiceProtocols.h"
#include "tests/doubles/FakeRemoteService.h"

namespace quillsift {
namespace {

using namespace std::chrono_literals;
using Session = SessionWatcher::Session;
using Turn = SessionWatcher::Turn;

class RecordingObserver : public ServiceObserver {
 public:
  void sessionStarted() override { events.push_back("started"); }
  void sessionCleared() override { events.push_back("cleared"); }
  void jobChanged(const QSJobInfo& job) override {
    events.push_back(*job.uuid() + "=" + std::to_string(job.jobStatus()));
  }
  void saveReported(const SaveReport& report) override { events.push_back("save " + report.path); }
  void unreadableNotification(const std::string& name) override { events.push_back("? " + name); }

  std::vector<std::string> events;
};

using Events = std::vector<std::string>;

class SessionWatcherTest : public testing::Test {
 protected:
  SessionWatcherTest()
      : service_(QuillsiftService::connect(*daemon_.connector(), "/run/socket", nullptr)),
        watcher_(
            *service_, observer_, [this] { return daemon_.now(); }, daemon_.interruptDescriptor()) {
  }

  static WireDictionary job(const std::string& uuid, std::int64_t status) {
    return FakeRemoteDaemon::job(uuid, uuid + ".txt", status);
  }
  std::size_t queries() const { return daemon_.callsOf(wire::kQueryJobStatusInformation); }
  // Watches for `time` of the daemon's clock.
  void watchFor(std::chrono::nanoseconds time) {
    const auto end = daemon_.now() + time;
    while (daemon_.now() < end)
      watcher_.watch(100ms, nullptr);
  }
  void start() {
    ASSERT_EQ(service_->start(nullptr), true);
    watcher_.startedHere();
  }

  FakeRemoteDaemon daemon_;
  RecordingObserver observer_;
  std::unique_ptr<QuillsiftService> service_;
  SessionWatcher watcher_;
};

TEST_F(SessionWatcherTest, TellsNoSessionFromARunningAndAFinishedOne) {
  ASSERT_TRUE(watcher_.refresh(nullptr));
  EXPECT_EQ(watcher_.session(), Session::none);
  daemon_.jobs = {job("a", 1)};
  ASSERT_TRUE(watcher_.refresh(nullptr));
  EXPECT_EQ(watcher_.session(), Session::running);
  daemon_.dateFinished = 5;
  ASSERT_TRUE(watcher_.refresh(nullptr));
  EXPECT_EQ(watcher_.session(), Session::finished);
  EXPECT_EQ(watcher_.dateFinished(), QSDate{5});
}

TEST_F(SessionWatcherTest, PassesOnNothingThatTheFirstLookFoundAndEverythingNewAfterIt) {
  daemon_.jobs = {job("a", 1), job("b", 4)};
  ASSERT_TRUE(watcher_.refresh(nullptr));
  EXPECT_EQ(observer_.events, Events{});
  daemon_.jobs = {job("a", 4), job("b", 4), job("c", 1)};
  ASSERT_TRUE(watcher_.refresh(nullptr));
  EXPECT_EQ(observer_.events, (Events{"a=4", "c=1"}));
}

TEST_F(SessionWatcherTest, AsksSeldomWhileJobsRun) {
  daemon_.jobs = {job("a", 1)};
  watchFor(60s);
  EXPECT_GE(queries(), 15u);
  EXPECT_LE(queries(), 21u);
}

TEST_F(SessionWatcherTest, AsksSoonWhenTheLastRunningJobHasEnded) {
  daemon_.jobs = {job("a", 1)};
  ASSERT_TRUE(watcher_.refresh(nullptr));
  daemon_.then([&] {
    daemon_.jobChanged(job("a", 4));
    daemon_.dateFinished = 5;
  });
  const auto before = daemon_.now();
  while (watcher_.session() != Session::finished)
    watcher_.watch(100ms, nullptr);
  EXPECT_LE(daemon_.now() - before, 100ms);
  EXPECT_EQ(queries(), 2u);
}

TEST_F(SessionWatcherTest, AsksLessAndLessOftenWhileNoJobRuns) {
  daemon_.jobs = {job("a", 4)};
  ASSERT_TRUE(watcher_.refresh(nullptr));
  watchFor(100ms);
  EXPECT_GE(queries(), 3u);
  watchFor(60s);
  EXPECT_LE(queries(), 130u);
  EXPECT_GE(queries(), 110u);
}

TEST_F(SessionWatcherTest, AsksNoMoreOnceTheSessionHasFinished) {
  daemon_.jobs = {job("a", 4)};
  daemon_.dateFinished = 5;
  watchFor(60s);
  EXPECT_EQ(queries(), 1u);
}

TEST_F(SessionWatcherTest, SpendsAtMostATenthOfTheTimeAsking) {
  for (int i = 0; i < 100; ++i) {
    daemon_.answerNext(wire::kQueryJobStatusInformation, [this](const auto&, QSError*) {
      daemon_.advance(2s);
      return std::vector<WireValue>{WireValue(WireArray{WireValue(job("a", 1))}),
                                    WireValue(WireArray{})};
    });
  }
  watchFor(200s);
  EXPECT_LE(queries(), 11u);
}

TEST_F(SessionWatcherTest, AsksLessAndLessOftenWhileTheDaemonDoesNotAnswer) {
  for (int i = 0; i < 100; ++i)
    daemon_.failNext(wire::kQueryJobStatusInformation, ETIMEDOUT);
  ServiceError error;
  EXPECT_EQ(watcher_.watch(100ms, &error), Turn::idle);
  EXPECT_EQ(error.kind, ServiceError::Kind::none);
  EXPECT_TRUE(watcher_.daemonBusy());
  watchFor(300s);
  EXPECT_LE(queries(), 11u);
  EXPECT_GE(queries(), 6u);
}

TEST_F(SessionWatcherTest, IsNoLongerBusyAfterAnAnswer) {
  daemon_.failNext(wire::kQueryJobStatusInformation, ETIMEDOUT);
  EXPECT_FALSE(watcher_.refresh(nullptr));
  EXPECT_TRUE(watcher_.daemonBusy());
  EXPECT_TRUE(watcher_.refresh(nullptr));
  EXPECT_FALSE(watcher_.daemonBusy());
}

TEST_F(SessionWatcherTest, AsksAgainWhenAClearCameInWithTheAnswer) {
  // The clear was sent before the answer and is delivered after it.
  daemon_.answerNext(wire::kQueryJobStatusInformation, [&](const auto&, QSError*) {
    daemon_.cleared();
    daemon_.jobs = {job("new", 1)};
    return std::vector<WireValue>{WireValue(WireArray{WireValue(job("new", 1))}),
                                  WireValue(WireArray{})};
  });
  ASSERT_TRUE(watcher_.refresh(nullptr));
  EXPECT_EQ(queries(), 2u);
  ASSERT_EQ(watcher_.jobs().jobs().size(), 1u);
  EXPECT_EQ(watcher_.jobs().jobs()[0].uuid(), "new");
}

TEST_F(SessionWatcherTest, PrefersTheLaterPushToTheQueryItOvertook) {
  daemon_.answerNext(wire::kQueryJobStatusInformation, [&](const auto&, QSError*) {
    daemon_.notify(wire::kJobStatusChanged, {WireValue(job("a", 4))});
    return std::vector<WireValue>{WireValue(WireArray{WireValue(job("a", 1))}),
                                  WireValue(WireArray{})};
  });
  ASSERT_TRUE(watcher_.refresh(nullptr));
  EXPECT_EQ(watcher_.jobs().counts().succeeded, 1u);
}

TEST_F(SessionWatcherTest, TellsThatTheSessionWasCleared) {
  daemon_.jobs = {job("a", 1)};
  ASSERT_TRUE(watcher_.refresh(nullptr));
  daemon_.then([&] { daemon_.cleared(); });
  watcher_.listen(1s);
  EXPECT_TRUE(watcher_.sessionWasCleared());
  EXPECT_EQ(watcher_.session(), Session::none);
  EXPECT_TRUE(watcher_.jobs().empty());
  EXPECT_EQ(observer_.events, Events{"cleared"});
}

TEST_F(SessionWatcherTest, DoesNotMindTheClearOfASessionThatItNeverSaw) {
  ASSERT_TRUE(watcher_.refresh(nullptr));
  daemon_.then([&] { daemon_.cleared(); }).then([&] { daemon_.started(); });
  watcher_.listen(1s);
  watcher_.listen(1s);
  EXPECT_FALSE(watcher_.sessionWasCleared());
  EXPECT_EQ(watcher_.session(), Session::running);
  EXPECT_EQ(observer_.events, Events{"started"});
}

TEST_F(SessionWatcherTest, ExpectsItsOwnStartToClearTheSessionBefore) {
  daemon_.jobs = {job("old", 4)};
  daemon_.dateFinished = 5;
  ASSERT_TRUE(watcher_.refresh(nullptr));
  start();
  EXPECT_EQ(watcher_.session(), Session::running);
  daemon_
      .then([&] {
        daemon_.cleared();
        daemon_.started();
      })
      .then([&] { daemon_.jobChanged(job("new", 1)); });
  watcher_.listen(1s);
  watcher_.listen(1s);
  EXPECT_FALSE(watcher_.sessionWasCleared());
  EXPECT_EQ(watcher_.session(), Session::running);
  EXPECT_EQ(observer_.events, Events{"new=1"});
}

TEST_F(SessionWatcherTest, SeesAClearAfterItsOwnStart) {
  ASSERT_TRUE(watcher_.refresh(nullptr));
  start();
  daemon_.then([&] { daemon_.started(); }).then([&] { daemon_.cleared(); });
  watcher_.listen(1s);
  watcher_.listen(1s);
  EXPECT_TRUE(watcher_.sessionWasCleared());
  EXPECT_EQ(watcher_.session(), Session::none);
}

TEST_F(SessionWatcherTest, SeesTheWishToLeaveInTheMiddleOfAFlood) {
  daemon_.then([&] {
    daemon_.interrupt();
    daemon_.jobChanged(job("a", 1));
  });
  EXPECT_EQ(watcher_.listen(1s), Turn::interrupted);
}

TEST_F(SessionWatcherTest, TellsThatTheConnectionBroke) {
  daemon_.disconnect();
  ServiceError error;
  EXPECT_EQ(watcher_.watch(1s, &error), Turn::disconnected);
  EXPECT_EQ(error.kind, ServiceError::Kind::disconnected);
  EXPECT_EQ(watcher_.listen(1s), Turn::disconnected);
}

TEST_F(SessionWatcherTest, PassesOnSavesAndWhatItCannotRead) {
  daemon_.then([&] {
    daemon_.saveReported(0, 0, "/x.inprogress");
    daemon_.notify("new", {});
  });
  watcher_.listen(1s);
  EXPECT_EQ(observer_.events, (Events{"save /x.inprogress", "? new"}));
}

}  // namespace
}  // namespace quillsift
