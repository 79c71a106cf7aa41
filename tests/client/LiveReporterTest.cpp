#include <gtest/gtest.h>

#include <algorithm>

#include "client/HumanText.h"
#include "client/LiveReporter.h"
#include "tests/client/CapturedOutput.h"
#include "tests/doubles/FakeRemoteService.h"

namespace quillsift {
namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

void add(JobTable* table, const std::string& path, std::int64_t status, std::uint64_t size = 0) {
  table->update(*QSJobInfo::initWithCoder(FakeRemoteDaemon::job(path, path, status, size)));
}

JobTable someJobs() {
  JobTable table;
  add(&table, "ps.txt", 4, 2048);
  add(&table, "lsof.txt", 1);
  add(&table, "df.txt", 1);
  add(&table, "boot.txt", 3);
  add(&table, "kmod.txt", 2, 10);
  return table;
}

std::size_t widest(const Lines& lines) {
  std::size_t width = 0;
  for (const std::string& line : lines)
    width = std::max(width, displayWidth(line));
  return width;
}

TEST(LiveViewTest, ShowsHowTheSessionGoes) {
  EXPECT_EQ(
      sessionLines(someJobs(), 67s, 79),
      (Lines{"Collecting: 2 running, 2 done, 1 failed, 2.0 KiB  (1:07)", "  lsof.txt, df.txt"}));
  EXPECT_EQ(sessionLines(JobTable(), 0s, 79),
            (Lines{"Collecting: 0 running, 0 done, 0 failed, 0 bytes  (0:00)", ""}));
}

TEST(LiveViewTest, NamesSomeOfManyRunningJobs) {
  JobTable table;
  for (char name = 'a'; name < 'a' + 12; ++name)
    add(&table, std::string(1, name), 1);
  EXPECT_EQ(sessionLines(table, 0s, 79)[1], "  a, b, c, d, e, f, g, h, 4 more");
}

TEST(LiveViewTest, ShowsASaveAsABar) {
  EXPECT_EQ(saveLines({0.5, SaveState::progress, "/x/a.tgz.inprogress"}, 79),
            (Lines{"Saving /x/a.tgz.inprogress",
                   "  [##############################..............................]  50%"}));
  EXPECT_EQ(saveLines({0.999, SaveState::progress, "/x"}, 30)[1], "  [###################.]  99%");
  EXPECT_EQ(saveLines({1, SaveState::progress, "/x"}, 30)[1], "  [####################] 100%");
  EXPECT_EQ(saveLines({0, SaveState::started, "/x"}, 30)[1], "  [....................]   0%");
  EXPECT_EQ(saveLines({-1, SaveState::failed, "/x"}, 30)[1], "  [....................]   0%");
}

TEST(LiveViewTest, CutsTheBeginningOfALongDestination) {
  EXPECT_EQ(saveLines({0, SaveState::started, "/a/very/long/way/to/the/archive.tgz"}, 30)[0],
            "Saving ...y/to/the/archive.tgz");
}

TEST(LiveViewTest, FitsEveryWidth) {
  JobTable table = someJobs();
  add(&table, "a-very-long-name-of-a-diagnostic-report-that-somebody-thought-of.crash", 1);
  for (std::size_t width = 0; width < 120; ++width) {
    EXPECT_LE(widest(sessionLines(table, 12345s, width)), width);
    EXPECT_LE(widest(saveLines({0.3, SaveState::progress, "/some/where/far/away"}, width)), width);
  }
  EXPECT_EQ(sessionLines(table, 0s, 79)[1],
            "  lsof.txt, df.txt, a-very-long-name-of-a-diagnostic-report-that-somebody-th...");
}

class LiveReporterTest : public testing::Test {
 protected:
  // After the time of a frame, so that it is drawn.
  void draw(const JobTable& table) {
    now_ += 100ms;
    reporter_->sessionProgress(table);
  }

  std::chrono::steady_clock::time_point now_{1h};
  TerminalSize size_{};
  CapturedOutput out_;
  CapturedOutput err_;
  std::unique_ptr<LiveReporter> reporter_ = std::make_unique<LiveReporter>(
      out_.output(), err_.output(), [this] { return now_; }, [this] { return size_; });
};

TEST_F(LiveReporterTest, RedrawsInPlace) {
  JobTable table;
  add(&table, "a.txt", 1);
  draw(table);
  EXPECT_EQ(out_.take(),
            "\rCollecting: 1 running, 0 done, 0 failed, 0 bytes  (0:00)\x1b[K\n"
            "  a.txt\x1b[K\n");
  add(&table, "a.txt", 4, 5);
  now_ += 2s;
  draw(table);
  EXPECT_EQ(out_.take(),
            "\r\x1b[2A"
            "Collecting: 0 running, 1 done, 0 failed, 5 bytes  (0:02)\x1b[K\n"
            "\x1b[K\n");
}

TEST_F(LiveReporterTest, DrawsAtMostTenTimesASecond) {
  draw(someJobs());
  out_.take();
  now_ += 99ms;
  reporter_->sessionProgress(someJobs());
  EXPECT_EQ(out_.take(), "");
  now_ += 1ms;
  reporter_->sessionProgress(someJobs());
  EXPECT_NE(out_.take(), "");
}

TEST_F(LiveReporterTest, PutsNoticesAboveTheView) {
  draw(JobTable());
  out_.take();
  reporter_->notice({"x", "Something happened.", {}});
  EXPECT_EQ(out_.take(),
            "\r\x1b[2A\x1b[JSomething happened.\n"
            "Collecting: 0 running, 0 done, 0 failed, 0 bytes  (0:00)\x1b[K\n"
            "\x1b[K\n");
}

TEST_F(LiveReporterTest, LeavesNothingBehind) {
  draw(JobTable());
  out_.take();
  reporter_->progressEnded();
  EXPECT_EQ(out_.take(), "\r\x1b[2A\x1b[J");
  reporter_->progressEnded();
  EXPECT_EQ(out_.take(), "");
  draw(JobTable());
  out_.take();
  reporter_.reset();
  EXPECT_EQ(out_.take(), "\r\x1b[2A\x1b[J");
}

TEST_F(LiveReporterTest, ErasesTheViewBeforeItTellsAFailure) {
  draw(JobTable());
  out_.take();
  reporter_->failure({ExitCode::failed, "broken"});
  EXPECT_EQ(out_.take(), "\r\x1b[2A\x1b[J");
  EXPECT_EQ(err_.take(), "quillsift: broken\n");
}

TEST_F(LiveReporterTest, FollowsTheSizeOfTheTerminal) {
  size_.columns = 30;
  draw(JobTable());
  EXPECT_EQ(out_.take(), "\rCollecting: 0 running, 0 d...\x1b[K\n\x1b[K\n");
  size_.columns = 20;  // the old lines may now be broken: drawn anew below them
  draw(JobTable());
  EXPECT_EQ(out_.take(), "\rCollecting: 0 ru...\x1b[K\n\x1b[K\n");
  draw(JobTable());
  EXPECT_EQ(out_.take(),
            "\r\x1b[2A"
            "Collecting: 0 ru...\x1b[K\n\x1b[K\n");
}

TEST_F(LiveReporterTest, DrawsNoMoreLinesThanTheTerminalHas) {
  size_ = {.columns = 80, .rows = 2};
  reporter_->saveProgress({0.5, SaveState::progress, "/x"});
  EXPECT_EQ(out_.take(), "\rSaving /x\x1b[K\n");
  size_.rows = 1;
  now_ += 1s;
  reporter_->saveProgress({0.5, SaveState::progress, "/x"});
  EXPECT_EQ(out_.take(), "\r\x1b[1A\x1b[J");
}

TEST_F(LiveReporterTest, PrintsNoLineForEachJob) {
  reporter_->jobChanged(*QSJobInfo::initWithCoder(FakeRemoteDaemon::job("u", "a.txt", 4)));
  reporter_->jobsAtHand(someJobs());
  EXPECT_EQ(out_.take(), "");
}

TEST_F(LiveReporterTest, PrintsTheSummaryForGood) {
  reporter_->summary(SummaryReport(SessionWatcher::Session::none, std::nullopt, JobTable()));
  EXPECT_EQ(out_.take(), "No session: nothing is collected.\n");
}

TEST(TerminalSizeTest, IsEightyByTwentyFourWhereThereIsNoTerminal) {
  CapturedOutput file;
  const TerminalSize size = terminalSize(file.output().descriptor());
  EXPECT_EQ(size.columns, 80u);
  EXPECT_EQ(size.rows, 24u);
}

}  // namespace
}  // namespace quillsift
