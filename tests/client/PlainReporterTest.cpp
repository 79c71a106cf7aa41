#include <gtest/gtest.h>

#include "client/PlainReporter.h"
#include "tests/client/CapturedOutput.h"
#include "tests/doubles/FakeRemoteService.h"

namespace quillsift {
namespace {

QSJobInfo job(const std::string& path, std::int64_t status, std::uint64_t size = 0,
              const std::string& reason = "") {
  return *QSJobInfo::initWithCoder(FakeRemoteDaemon::job("u", path, status, size, reason));
}

class PlainReporterTest : public testing::Test {
 protected:
  CapturedOutput out_;
  CapturedOutput err_;
  PlainReporter reporter_{out_.output(), err_.output()};
};

TEST_F(PlainReporterTest, PrintsALineForEachJobThatEnds) {
  reporter_.jobChanged(job("a.txt", 0));
  reporter_.jobChanged(job("a.txt", 1));
  EXPECT_EQ(out_.take(), "");
  reporter_.jobChanged(job("a.txt", 4, 1536));
  reporter_.jobChanged(job("b.txt", 2, 10, "Exited with Code:1"));
  reporter_.jobChanged(job("c\n.txt", 3, 0, "No such\nfile"));
  EXPECT_EQ(out_.take(),
            "done      a.txt (1.5 KiB)\n"
            "non-zero  b.txt (10 bytes): Exited with Code:1\n"
            "failed    c .txt: No such file\n");
}

TEST_F(PlainReporterTest, PrintsALineForEachTenthOfASave) {
  for (const double progress : {0.0, 0.05, 0.1, 0.14, 0.39, 0.35, 1.0, 1.0}) {
    reporter_.saveProgress({progress, SaveState::progress, "/x"});
  }
  reporter_.saveProgress({-1, SaveState::failed, "/x"});
  EXPECT_EQ(out_.take(), "Saving: 10%\nSaving: 30%\nSaving: 100%\n");
  reporter_.progressEnded();
  reporter_.saveProgress({0.2, SaveState::progress, "/y"});
  EXPECT_EQ(out_.take(), "Saving: 20%\n");
}

TEST_F(PlainReporterTest, PrintsNoticesThatHaveAText) {
  reporter_.notice({"saved", "Saved to /x", JsonObject().add("path", "/x")});
  reporter_.notice({"cleared", "", {}});
  EXPECT_EQ(out_.take(), "Saved to /x\n");
}

TEST_F(PlainReporterTest, PrintsTheSummary) {
  JobTable table;
  table.update(job("a.txt", 4, 1));
  reporter_.summary(SummaryReport(SessionWatcher::Session::running, std::nullopt, table));
  EXPECT_EQ(out_.take(), "A session is running: 1 job, 1 byte collected.\n  1 succeeded\n");
}

TEST_F(PlainReporterTest, TellsFailuresOnStandardError) {
  reporter_.failure({ExitCode::failed, "no\x1bsuch\nthing"});
  EXPECT_EQ(out_.take(), "");
  EXPECT_EQ(err_.take(), "quillsift: no\\x1bsuch thing\n");
}

TEST_F(PlainReporterTest, SaysNothingOfWhatIsOnlyForALiveView) {
  JobTable table;
  table.update(job("a.txt", 1));
  reporter_.jobsAtHand(table);
  reporter_.sessionProgress(table);
  EXPECT_EQ(out_.take(), "");
  EXPECT_EQ(reporter_.outputError(), 0);
}

}  // namespace
}  // namespace quillsift
