#include <gtest/gtest.h>

#include "client/JobTable.h"
#include "tests/doubles/FakeRemoteService.h"

namespace quillsift {
namespace {

QSJobInfo job(const std::string& uuid, std::int64_t status, std::uint64_t size = 0) {
  return *QSJobInfo::initWithCoder(FakeRemoteDaemon::job(uuid, uuid + ".txt", status, size));
}

TEST(JobTableTest, CountsEachStateAndTheBytes) {
  JobTable table;
  table.update(job("a", 0));
  table.update(job("b", 1, 5));
  table.update(job("c", 2, 10));
  table.update(job("d", 3));
  table.update(job("e", 4, 100));
  EXPECT_EQ(
      table.counts(),
      (JobCounts{.unfinished = 2, .nonZeroExit = 1, .failed = 1, .succeeded = 1, .bytes = 115}));
  EXPECT_EQ(table.counts().total(), 5u);
  EXPECT_EQ(table.counts().done(), 2u);
}

TEST(JobTableTest, MovesAJobFromStateToState) {
  JobTable table;
  EXPECT_TRUE(table.update(job("a", 0)));
  EXPECT_TRUE(table.update(job("a", 1)));
  EXPECT_TRUE(table.update(job("a", 4, 7)));
  EXPECT_EQ(table.jobs().size(), 1u);
  EXPECT_EQ(table.counts(), (JobCounts{.succeeded = 1, .bytes = 7}));
}

TEST(JobTableTest, SaysWhetherAnUpdateIsNews) {
  JobTable table;
  EXPECT_TRUE(table.update(job("a", 1)));
  EXPECT_FALSE(table.update(job("a", 1)));
  EXPECT_TRUE(table.update(job("a", 1, 3)));
}

TEST(JobTableTest, NeverLetsAnEndedJobRunAgain) {
  JobTable table;
  table.update(job("a", 4, 7));
  EXPECT_FALSE(table.update(job("a", 1)));
  EXPECT_FALSE(table.update(job("a", 0)));
  EXPECT_EQ(table.counts(), (JobCounts{.succeeded = 1, .bytes = 7}));
  EXPECT_TRUE(table.update(job("a", 2, 7)));
}

TEST(JobTableTest, KeepsTheOrderOfTheFirstSight) {
  JobTable table;
  table.update(job("b", 1));
  table.update(job("a", 1));
  table.update(job("b", 4));
  ASSERT_EQ(table.jobs().size(), 2u);
  EXPECT_EQ(table.jobs()[0].uuid(), "b");
  EXPECT_EQ(table.jobs()[1].uuid(), "a");
}

TEST(JobTableTest, NamesTheOldestRunningJobsFirst) {
  JobTable table;
  for (const char* name : {"a", "b", "c", "d"})
    table.update(job(name, 1));
  table.update(job("b", 4));
  EXPECT_EQ(table.runningPaths(2), (std::vector<std::string>{"a.txt", "c.txt"}));
}

TEST(JobTableTest, IgnoresRecordsWithoutUUIDAndTakesUnknownStatesForRunning) {
  JobTable table;
  EXPECT_FALSE(table.update(*QSJobInfo::initWithCoder({})));
  table.update(job("a", 17));
  table.update(job("b", -1));
  EXPECT_EQ(table.counts(), (JobCounts{.unfinished = 2}));
}

TEST(JobTableTest, ForgetsEverythingOnClear) {
  JobTable table;
  table.update(job("a", 4, 7));
  table.clear();
  EXPECT_TRUE(table.empty());
  EXPECT_EQ(table.counts(), JobCounts{});
  EXPECT_TRUE(table.update(job("a", 1)));
}

}  // namespace
}  // namespace quillsift
