#include <gmock/gmock.h>

#include <cerrno>
#include <chrono>
#include <memory>

#include "collect/CoDiagnoseArchiveJob.h"
#include "collect/CollectionPlan.h"
#include "tests/collect/PlanFixture.h"

namespace quillsift {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kName = "corvane_omnitrawl_7.tar.gz";

class CoDiagnoseArchiveJobTest : public PlanFixture {
 protected:
  void SetUp() override {
    companion = std::make_shared<FakeCoDiagnose>();
    companion->handle = std::make_shared<FakeReadHandle>();
    companion->setArchive(kName, true);
    session_ = session();
  }
  void queue() {
    queueCoDiagnoseArchive(session_, row_, companion);
    platform.workQueues().settle();
  }
  bool sessionGroupIsEmpty() { return session_.group->waitFor(std::chrono::nanoseconds(0)); }
  WorkOutcome runJob() { return WorkOutcome(host->job(kName).value().work); }

  const PlanRow row_{CoDiagnoseArchive{}, "", Sensitive::yes, QOSClass::userInitiated};
  CollectionSession session_;
};

TEST_F(CoDiagnoseArchiveJobTest, StoresTheArchiveUnderItsOwnName) {
  companion->handle->deliver("archive bytes");
  queue();
  const Job job = host->job(kName).value();
  EXPECT_EQ(job.kind, Kind::work);
  EXPECT_TRUE(job.sensitive);
  EXPECT_EQ(job.qos, QOSClass::userInitiated);
  EXPECT_EQ(job.uuid, sessionUUID.text());
  const WorkOutcome outcome = runJob();
  EXPECT_TRUE(outcome.succeeded);
  EXPECT_EQ(outcome.text(), "archive bytes");
  EXPECT_THAT(platform.systemLog().lines(), IsEmpty());
}

TEST_F(CoDiagnoseArchiveJobTest, LetsNoNameLeadOutOfTheArchive) {
  companion->setArchive("../../etc/cron.d/x", true);
  companion->handle->deliver("bytes");
  queue();
  EXPECT_TRUE(queued("..-..-etc-cron.d-x"));
}

TEST_F(CoDiagnoseArchiveJobTest, ReplacesControlCharactersAndBytesThatAreNotText) {
  companion->setArchive("a\nb\xff.tar", true);
  companion->handle->deliver("bytes");
  queue();
  EXPECT_TRUE(queued("a-b\xef\xbf\xbd.tar"));
}

TEST_F(CoDiagnoseArchiveJobTest, KeepsANameWithoutAnExtension) {
  companion->setArchive("omnitrawl_20261120", true);
  companion->handle->deliver("bytes");
  queue();
  EXPECT_TRUE(queued("omnitrawl_20261120"));
}

class UnusableNameTest : public CoDiagnoseArchiveJobTest,
                         public testing::WithParamInterface<std::string> {};

TEST_P(UnusableNameTest, IsReplacedByTheDefault) {
  companion->setArchive(GetParam(), true);
  companion->handle->deliver("bytes");
  queue();
  EXPECT_TRUE(queued("corvane_omnitrawl_unknown.tar.gz"));
}

INSTANTIATE_TEST_SUITE_P(Names, UnusableNameTest,
                         testing::Values("", ".", "..", "Logs", "lsof.txt", "screenshots",
                                         std::string(252, 'x') + ".tar"));

TEST_F(CoDiagnoseArchiveJobTest, ReadsOnASerialQueueOfItsOwn) {
  queue();
  const auto queues = platform.workQueues().queues();
  ASSERT_EQ(queues.size(), 1U);
  EXPECT_EQ(queues[0].label, "io.vantor.quillsiftd.CorvaneReadHandle");
  EXPECT_EQ(queues[0].targetLabel, "");
}

TEST_F(CoDiagnoseArchiveJobTest, QueuesTheJobOnlyOnceTheArchiveIsThere) {
  queue();
  EXPECT_THAT(host->jobs(), IsEmpty());
  EXPECT_FALSE(sessionGroupIsEmpty());
  companion->handle->deliver("late");
  platform.workQueues().settle();
  EXPECT_TRUE(queued(kName));
}

TEST_F(CoDiagnoseArchiveJobTest, KeepsTheSessionGroupUntilTheJobInItsOwnGroupHasEnded) {
  host->hold(kName);
  companion->handle->deliver("bytes");
  queue();
  EXPECT_NE(host->job(kName).value().group, session_.group);
  EXPECT_FALSE(sessionGroupIsEmpty());
  advance(100000);
  EXPECT_FALSE(sessionGroupIsEmpty());  // that wait has no limit
  host->finish(kName);
  platform.workQueues().settle();
  EXPECT_TRUE(sessionGroupIsEmpty());
}

TEST_F(CoDiagnoseArchiveJobTest, TakesTheNameThatTheCompanionHasSentMeanwhile) {
  companion->setArchive("default", true);
  queue();
  companion->setArchive(kName, true);
  companion->handle->deliver("bytes");
  platform.workQueues().settle();
  EXPECT_TRUE(queued(kName));
}

TEST_F(CoDiagnoseArchiveJobTest, StoresACleanEndWithoutAByteAsEmptyData) {
  companion->handle->deliver("");
  queue();
  const WorkOutcome outcome = runJob();
  EXPECT_TRUE(outcome.succeeded);
  ASSERT_NE(outcome.entry, nullptr);
  ASSERT_TRUE(outcome.entry->fileData().has_value());
  EXPECT_EQ(outcome.entry->length(), 0U);
}

TEST_F(CoDiagnoseArchiveJobTest, FailsWhenTheArchiveIsNotValid) {
  companion->setArchive(kName, false);
  companion->handle->deliver("1234567");
  queue();
  const WorkOutcome outcome = runJob();
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_EQ(outcome.entry, nullptr);
  EXPECT_FALSE(outcome.error);
  EXPECT_THAT(platform.systemLog().lines(),
              ElementsAre(errorLine("Failed to archive Corvane diagnose. (Handle Valid: 1, Archive "
                                    "Valid: 0, Archive Data: 7 bytes, Read Error: (null))")));
}

TEST_F(CoDiagnoseArchiveJobTest, FailsWithTheErrorOfTheRead) {
  companion->handle->fail(QSError::posix(EIO));
  queue();
  const WorkOutcome outcome = runJob();
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_EQ(outcome.error.code, EIO);
  EXPECT_THAT(platform.systemLog().lines(),
              ElementsAre(errorLine("Failed to archive Corvane diagnose. (Handle Valid: 1, Archive "
                                    "Valid: 1, Archive Data: (null), Read Error: POSIX 5: "
                                    "Input/output error)")));
}

TEST_F(CoDiagnoseArchiveJobTest, SaysWhenTheHandleWasClosedUnderTheReader) {
  queue();
  companion->handle->close();
  platform.workQueues().settle();
  EXPECT_FALSE(runJob().succeeded);
  EXPECT_THAT(platform.systemLog().lines(),
              ElementsAre(errorLine("Failed to archive Corvane diagnose. (Handle Valid: 0, Archive "
                                    "Valid: 1, Archive Data: (null), Read Error: POSIX 9: Bad file "
                                    "descriptor)")));
}

TEST_F(CoDiagnoseArchiveJobTest, ReadsNoDataAndNoErrorWithoutAHandle) {
  companion->handle = nullptr;
  companion->setArchive(kName, false);
  queue();
  const WorkOutcome outcome = runJob();
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_FALSE(outcome.error);
  EXPECT_THAT(platform.systemLog().lines(),
              ElementsAre(errorLine("Failed to archive Corvane diagnose. (Handle Valid: 0, Archive "
                                    "Valid: 0, Archive Data: (null), Read Error: (null))")));
}

TEST_F(CoDiagnoseArchiveJobTest, HoldsTheCompanionUntilTheJobIsQueuedAndNoLonger) {
  const auto handle = companion->handle;
  const std::weak_ptr<FakeCoDiagnose> weakly = companion;
  queue();
  companion.reset();
  EXPECT_FALSE(weakly.expired());
  host->hold(kName);
  handle->deliver("bytes");
  platform.workQueues().settle();
  EXPECT_TRUE(queued(kName));
  EXPECT_TRUE(weakly.expired());
}

TEST_F(CoDiagnoseArchiveJobTest, FailsOnceTheCompanionIsGone) {
  const auto handle = companion->handle;
  queue();
  companion.reset();
  handle->deliver("1234567");
  platform.workQueues().settle();
  const WorkOutcome outcome = runJob();
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_EQ(outcome.entry, nullptr);
  EXPECT_THAT(platform.systemLog().lines(),
              ElementsAre(errorLine("Failed to archive Corvane diagnose. (Handle Valid: 0, Archive "
                                    "Valid: 0, Archive Data: 7 bytes, Read Error: (null))")));
}

TEST_F(CoDiagnoseArchiveJobTest, EndsQuietlyOnceTheHostIsGone) {
  session_.host.reset();
  companion->handle->deliver("bytes");
  queue();
  EXPECT_THAT(host->jobs(), IsEmpty());
  EXPECT_TRUE(sessionGroupIsEmpty());
}

}  // namespace
}  // namespace quillsift
