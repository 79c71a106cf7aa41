#include <gtest/gtest.h>

#include "client/SummaryReport.h"
#include "tests/doubles/FakeRemoteService.h"

namespace quillsift {
namespace {

using Lines = std::vector<std::string>;
using Session = SessionWatcher::Session;

class SummaryReportTest : public testing::Test {
 protected:
  void add(const std::string& path, std::int64_t status, std::uint64_t size = 0,
           const std::string& reason = "", bool sensitive = false) {
    table_.update(*QSJobInfo::initWithCoder(
        FakeRemoteDaemon::job("uuid of " + path, path, status, size, reason, sensitive)));
  }
  SummaryReport finished() const {
    return SummaryReport(Session::finished, QSDate{1700000000}, table_);
  }

  JobTable table_;
};

TEST_F(SummaryReportTest, NamesEachJobThatDidNotGoWellWithItsReason) {
  add("ps.txt", 4, 2048);
  add("empty.txt", 4);
  add("lsof.txt", 2, 1536, "Exited with Code:1");
  add("boot.txt", 2, 0, "Exited with Code:9");
  add("gone.txt", 3, 0, "Launch failed");
  add("half.txt", 3, 3, "Worker block failed");
  add("late.txt", 1);
  EXPECT_EQ(finished().lines(),
            (Lines{
                "The session finished at 2023-11-14 22:13:20 +0000: 7 jobs, 3.5 KiB collected.",
                "  2 succeeded, 1 of them without output",
                "  2 exited non-zero, the output is kept:",
                "    lsof.txt (1.5 KiB): Exited with Code:1",
                "    boot.txt (no output): Exited with Code:9",
                "  2 failed:",
                "    gone.txt: Launch failed",
                "    half.txt (3 bytes kept): Worker block failed",
                "  1 not ended yet:",
                "    late.txt",
            }));
}

TEST_F(SummaryReportTest, IsShortWhenAllWentWell) {
  add("ps.txt", 4, 1);
  EXPECT_EQ(finished().lines(),
            (Lines{"The session finished at 2023-11-14 22:13:20 +0000: 1 job, 1 byte collected.",
                   "  1 succeeded"}));
}

TEST_F(SummaryReportTest, DescribesARunningSessionAndNone) {
  add("ps.txt", 1);
  EXPECT_EQ(
      SummaryReport(Session::running, std::nullopt, table_).lines(),
      (Lines{"A session is running: 1 job, 0 bytes collected.", "  1 running:", "    ps.txt"}));
  EXPECT_EQ(SummaryReport(Session::none, std::nullopt, JobTable()).lines(),
            Lines{"No session: nothing is collected."});
}

TEST_F(SummaryReportTest, SaysSoWhenNoReasonWasGiven) {
  add("a.txt", 3);
  EXPECT_EQ(finished().lines().back(), "    a.txt: no reason given");
}

TEST_F(SummaryReportTest, KeepsEachJobOnALineOfItsOwn) {
  add("a\x1b[2J.txt", 3, 0, "first\nsecond");
  EXPECT_EQ(finished().lines().back(), "    a\\x1b[2J.txt: first second");
}

TEST_F(SummaryReportTest, CountsTheSensitiveResultsThatThereAre) {
  add("a.txt", 4, 5, "", true);
  add("b.txt", 4, 0, "", true);
  add("c.txt", 2, 5, "x", true);
  add("d.txt", 4, 5, "", false);
  EXPECT_EQ(finished().sensitiveOutputs(), 2u);
}

TEST_F(SummaryReportTest, TellsProgramsTheSame) {
  add("ps.txt", 4, 10);
  add("lsof.txt", 2, 5, "Exited with Code:1");
  add("gone.txt", 3);
  EXPECT_EQ(
      finished().json().text(),
      R"({"session":"finished","dateFinished":1700000000,"jobs":3,"succeeded":1,"withoutOutput":0,)"
      R"("nonZeroExit":1,"failed":1,"unfinished":0,"bytes":15,"problems":[)"
      R"({"path":"lsof.txt","status":2,"state":"nonZeroExit","reason":"Exited with Code:1","size":5},)"
      R"({"path":"gone.txt","status":3,"state":"failed","reason":null,"size":0}]})");
  EXPECT_EQ(SummaryReport(Session::none, std::nullopt, JobTable()).json().text(),
            R"({"session":"none","dateFinished":null,"jobs":0,"succeeded":0,"withoutOutput":0,)"
            R"("nonZeroExit":0,"failed":0,"unfinished":0,"bytes":0,"problems":[]})");
}

TEST_F(SummaryReportTest, DescribesAJobForPrograms) {
  WireDictionary record = FakeRemoteDaemon::job("u1", "a.txt", 3, 7, "why", true);
  record.emplace("QSJobInfoDateFinished", 12.5);
  EXPECT_EQ(describeJob(*QSJobInfo::initWithCoder(record)).text(),
            R"({"uuid":"u1","path":"a.txt","status":3,"state":"failed","size":7,"sensitive":true,)"
            R"("dateFinished":12.5,"reason":"why"})");
  EXPECT_EQ(describeJob(*QSJobInfo::initWithCoder({})).text(),
            R"({"uuid":null,"path":null,"status":0,"state":"notStarted","size":null,)"
            R"("sensitive":false,"dateFinished":null,"reason":null})");
}

}  // namespace
}  // namespace quillsift
