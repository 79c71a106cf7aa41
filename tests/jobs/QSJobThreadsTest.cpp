#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "jobs/QSJob.h"
#include "tests/doubles/TestPlatform.h"

namespace quillsift {
namespace {

constexpr const char* kProgram = "/usr/bin/program";

// Stopping a job, and reading it, while it runs.
class QSJobThreadsTest : public testing::Test {
 protected:
  FakeProcessLauncher& launcher() { return platform_.processLauncher(); }

  // Runs the job on a thread of its own and returns once its output is being read.
  std::thread startReading(ScriptedChild script) {
    auto reading = std::make_shared<std::promise<void>>();
    std::future<void> started = reading->get_future();
    script.onRead = [reading] { reading->set_value(); };
    launcher().script(kProgram, std::move(script));
    std::thread thread([this] { job_.beginSynchronousJob(); });
    started.wait();
    return thread;
  }

  TestPlatform platform_;
  QSJob job_{kProgram, {}, "program.txt"};
};

TEST_F(QSJobThreadsTest, StopKillsARunningChildAndKeepsItsOutput) {
  std::thread thread = startReading({.output = "so far", .hangs = true});
  EXPECT_EQ(job_.jobStatus(), QSJobStatus::running);
  job_.stop();
  thread.join();
  EXPECT_EQ(launcher().child(kProgram)->killCalls(), 1U);
  EXPECT_EQ(job_.jobStatus(), QSJobStatus::nonZeroExit);
  EXPECT_EQ(job_.failureReason(),
            "Tasked exited with a non-zero result. QSJobErrorDomain 2: Exited with Code:9");
  EXPECT_FALSE(job_.jobCompletelyFailed());
  EXPECT_EQ(job_.resultEntry()->fileData()->text(), "so far");
  EXPECT_TRUE(job_.dateFinished().has_value());
}

TEST_F(QSJobThreadsTest, StopChangesNoField) {
  std::thread thread = startReading({.hangs = true, .leavesOutputOpen = true});
  job_.stop();
  EXPECT_TRUE(launcher().child(kProgram)->wasKilled());
  EXPECT_EQ(job_.jobStatus(), QSJobStatus::running);
  EXPECT_EQ(job_.failureReason(), std::nullopt);
  EXPECT_EQ(job_.resultEntry(), nullptr);
  EXPECT_EQ(job_.dateFinished(), std::nullopt);
  launcher().child(kProgram)->closeOutput();
  thread.join();
}

TEST_F(QSJobThreadsTest, OutputThatSomebodyHoldsOpenKeepsTheJobRunningPastAStop) {
  std::thread thread = startReading({.output = "out", .leavesOutputOpen = true});
  launcher().child(kProgram)->finish(0);
  job_.stop();  // too late for the child, and not for whoever it left behind
  EXPECT_EQ(job_.jobStatus(), QSJobStatus::running);
  launcher().child(kProgram)->closeOutput();
  thread.join();
  EXPECT_EQ(job_.jobStatus(), QSJobStatus::succeeded);
  EXPECT_EQ(job_.resultEntry()->fileData()->text(), "out");
}

TEST_F(QSJobThreadsTest, StopBeforeTheLaunchIsNotRemembered) {
  job_.stop();
  launcher().onLaunch([&](FakeChild&) { job_.stop(); });
  job_.beginSynchronousJob();
  EXPECT_EQ(launcher().child(kProgram)->killCalls(), 0U);
  EXPECT_EQ(job_.jobStatus(), QSJobStatus::succeeded);
}

TEST_F(QSJobThreadsTest, StopOnAFinishedJobDoesNothing) {
  for (const int exitCode : {0, 1}) {
    launcher().script(kProgram, {.exitCode = exitCode});
    job_.beginSynchronousJob();
    const QSJobStatus status = job_.jobStatus();
    job_.stop();
    EXPECT_EQ(launcher().child(kProgram)->killCalls(), 0U);
    EXPECT_EQ(job_.jobStatus(), status);
  }
}

TEST_F(QSJobThreadsTest, StopDoesNothingToAWorkBlock) {
  QSJob* self = nullptr;
  QSJob job(
      [&](auto*, auto*) {
        self->stop();
        return true;
      },
      "b");
  self = &job;
  job.stop();
  job.beginSynchronousJob();
  job.stop();
  EXPECT_EQ(job.jobStatus(), QSJobStatus::succeeded);
}

TEST_F(QSJobThreadsTest, EveryFieldCanBeReadAndTheJobStoppedWhileItRunsAgainAndAgain) {
  launcher().script(kProgram, {.output = "output"});
  launcher().script(kProgram, {"fails"}, {.output = "", .exitCode = 1});
  QSJob failing(kProgram, {"fails"}, "failing.txt");
  std::atomic<bool> ended = false;
  const auto read = [&](QSJob& job) {
    while (!ended) {
      const auto entry = job.resultEntry();
      EXPECT_LE(entry ? entry->length() : 0, 6U);
      EXPECT_EQ(job.failureReason().value_or("Tasked exited").find("Tasked exited"), 0U);
      EXPECT_FALSE(job.description().empty());
      EXPECT_GE(job.dateFinished().value_or(QSDate{1}).secondsSince1970, 1);
      EXPECT_NE(job.jobStatus(), QSJobStatus::failed);
      job.stop();
    }
  };
  std::vector<std::thread> readers;
  readers.emplace_back(read, std::ref(job_));
  readers.emplace_back(read, std::ref(failing));
  for (int i = 0; i < 500; ++i) {
    job_.beginSynchronousJob();
    failing.beginSynchronousJob();
  }
  ended = true;
  for (std::thread& reader : readers)
    reader.join();
  EXPECT_EQ(job_.jobStatus(), QSJobStatus::succeeded);
  EXPECT_EQ(failing.jobStatus(), QSJobStatus::nonZeroExit);
}

}  // namespace
}  // namespace quillsift
