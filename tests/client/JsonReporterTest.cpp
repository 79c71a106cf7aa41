#include <gtest/gtest.h>

#include "client/JsonReporter.h"
#include "tests/client/CapturedOutput.h"
#include "tests/doubles/FakeRemoteService.h"

namespace quillsift {
namespace {

class JsonReporterTest : public testing::Test {
 protected:
  CapturedOutput out_;
  CapturedOutput err_;
  JsonReporter reporter_{out_.output(), err_.output()};
};

TEST_F(JsonReporterTest, PrintsOneObjectALine) {
  reporter_.notice({"saving", "Saving to /x", JsonObject().add("path", "/x\n\"y\"")});
  reporter_.notice({"cleared", "", {}});
  EXPECT_EQ(out_.take(),
            "{\"event\":\"saving\",\"path\":\"/x\\n\\\"y\\\"\"}\n"
            "{\"event\":\"cleared\"}\n");
}

TEST_F(JsonReporterTest, PrintsEachJobAtHandAndEachThatChanges) {
  const auto record = FakeRemoteDaemon::job("u", "a.txt", 1);
  const std::string line =
      R"({"event":"job","uuid":"u","path":"a.txt","status":1,"state":"running","size":0,)"
      R"("sensitive":false,"dateFinished":null,"reason":null})"
      "\n";
  JobTable table;
  table.update(*QSJobInfo::initWithCoder(record));
  reporter_.jobsAtHand(table);
  EXPECT_EQ(out_.take(), line);
  reporter_.jobChanged(*QSJobInfo::initWithCoder(record));
  EXPECT_EQ(out_.take(), line);
  reporter_.sessionProgress(table);
  EXPECT_EQ(out_.take(), "");
}

TEST_F(JsonReporterTest, PrintsTheProgressOfASaveOnceForEachStep) {
  reporter_.saveProgress({0.25, SaveState::progress, "/x.inprogress"});
  reporter_.saveProgress({0.25, SaveState::progress, "/x.inprogress"});
  reporter_.saveProgress({0.5, SaveState::progress, "/x.inprogress"});
  EXPECT_EQ(out_.take(),
            "{\"event\":\"saveProgress\",\"progress\":0.25,\"path\":\"/x.inprogress\"}\n"
            "{\"event\":\"saveProgress\",\"progress\":0.5,\"path\":\"/x.inprogress\"}\n");
}

TEST_F(JsonReporterTest, PrintsTheSummaryAsAnEvent) {
  reporter_.summary(SummaryReport(SessionWatcher::Session::none, std::nullopt, JobTable()));
  EXPECT_EQ(out_.take().rfind(R"({"event":"summary","session":"none",)", 0), 0u);
}

TEST_F(JsonReporterTest, TellsAFailureToProgramsAndToPeople) {
  reporter_.failure({ExitCode::refused, "a \"session\" runs"});
  EXPECT_EQ(out_.take(),
            "{\"event\":\"error\",\"exitCode\":4,\"message\":\"a \\\"session\\\" runs\"}\n");
  EXPECT_EQ(err_.take(), "quillsift: a \"session\" runs\n");
}

}  // namespace
}  // namespace quillsift
