#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "jobs/QSJob.h"
#include "platform/Text.h"
#include "tests/doubles/TestPlatform.h"

namespace quillsift {
namespace {

constexpr const char* kProgram = "/usr/bin/program";
constexpr const char* kUnknownError = "QSJob failed with an unknown error.";
constexpr QSDate kNow{1700000000.0};

std::shared_ptr<const QSJobEntry> entryOf(const char* text) {
  return std::make_shared<const QSJobEntry>(QSData(std::string(text)));
}

// A body that ends in any way a body could.
class OtherBodyJob : public QSJob {
 public:
  using Body = std::function<bool(QSError* error)>;

  explicit OtherBodyJob(Body body) : QSJob(WorkBlock(), "Other.txt"), body_(std::move(body)) {}

 protected:
  bool _invokeTaskReturningError(QSError* error) override { return body_(error); }

 private:
  const Body body_;
};

class QSJobTest : public testing::Test {
 protected:
  FakeProcessLauncher& launcher() { return platform_.processLauncher(); }

  void script(ScriptedChild child) { launcher().script(kProgram, std::move(child)); }

  void runAt(time_t seconds, QSJob& job) {
    platform_.hostInformation().setRealTime({seconds, 0});
    job.beginSynchronousJob();
  }

  TestPlatform platform_;
  QSJob command_{kProgram, {"-a", "b c", ""}, "Logs/program.txt"};
};

// --- before a run

TEST_F(QSJobTest, ANewJobHasDoneNothing) {
  EXPECT_EQ(command_.jobStatus(), QSJobStatus::notStarted);
  EXPECT_FALSE(command_.jobCompletelyFailed());
  EXPECT_FALSE(command_.jobExitedSuccessfully());
  EXPECT_TRUE(command_.sensitive());
  EXPECT_EQ(command_.relativeFilePathAndName(), "Logs/program.txt");
  EXPECT_EQ(command_.resultEntry(), nullptr);
  EXPECT_EQ(command_.failureReason(), std::nullopt);
  EXPECT_EQ(command_.dateFinished(), std::nullopt);
  EXPECT_TRUE(launcher().requests().empty());
}

TEST_F(QSJobTest, HasAnIdentifierOfItsOwnThatStays) {
  const QSJob other(kProgram, {}, "other");
  const std::string identifier = command_.uuid();
  EXPECT_EQ(identifier.size(), 36U);
  EXPECT_NE(identifier, other.uuid());
  command_.beginSynchronousJob();
  EXPECT_EQ(command_.uuid(), identifier);
}

TEST_F(QSJobTest, SensitivityIsSetFromOutsideAndSurvivesARun) {
  command_.setSensitive(false);
  command_.beginSynchronousJob();
  EXPECT_FALSE(command_.sensitive());
}

// --- how a run ends

struct Outcome {
  const char* name;
  std::function<std::unique_ptr<QSJob>(FakeProcessLauncher&)> make;
  QSJobStatus status;
  bool completelyFailed;
  std::optional<std::string> reason;
  std::optional<std::string> output;
  bool finished = true;
};

std::function<std::unique_ptr<QSJob>(FakeProcessLauncher&)> child(ScriptedChild scripted) {
  return [scripted](FakeProcessLauncher& launcher) {
    launcher.script(kProgram, scripted);
    return std::make_unique<QSJob>(kProgram, std::vector<std::string>(), "c");
  };
}

std::function<std::unique_ptr<QSJob>(FakeProcessLauncher&)> block(WorkBlock work) {
  return [work](FakeProcessLauncher&) { return std::make_unique<QSJob>(work, "b"); };
}

std::function<std::unique_ptr<QSJob>(FakeProcessLauncher&)> body(OtherBodyJob::Body other) {
  return [other](FakeProcessLauncher&) { return std::make_unique<OtherBodyJob>(other); };
}

OtherBodyJob::Body failingWith(std::int64_t code) {
  return [code](QSError* error) {
    error->domain = kQSJobErrorDomain;
    error->code = code;
    return false;
  };
}

WorkBlock leaving(const char* output, bool succeeds, std::optional<QSError> failure) {
  return [=](std::shared_ptr<const QSJobEntry>* entry, QSError* error) {
    if (output != nullptr) *entry = entryOf(output);
    if (failure) *error = *failure;
    return succeeds;
  };
}

std::vector<Outcome> outcomes() {
  using Status = QSJobStatus;
  const QSError missing = QSError::posix(ENOENT, kProgram);
  const std::string nonZero = "Tasked exited with a non-zero result. QSJobErrorDomain 2";
  const std::string blockFailed = "Worker block reported a failure. QSJobErrorDomain 3";
  const std::string launchFailed = "Task failed to launch due to Spawner Error:";
  return {
      {"a child that exits with 0", child({.output = "out"}), Status::succeeded, false, {}, "out"},
      {"a child that prints nothing", child({}), Status::succeeded, false, {}, ""},
      {"a child that exits with 3", child({.output = "out", .exitCode = 3}), Status::nonZeroExit,
       false, nonZero + ": Exited with Code:3", "out"},
      {"a child that dies by a signal", child({.exitCode = SIGSEGV}), Status::nonZeroExit, false,
       nonZero + ": Exited with Code:11", ""},
      {"a missing program",
       child({.launchError = missing}),
       Status::failed,
       true,
       launchFailed + missing.description(),
       {},
       false},
      {"a launcher that gives no reason",
       child({.launchError = QSError()}),
       Status::failed,
       true,
       launchFailed + "(null)",
       {},
       false},
      {"a child whose output does not fit into memory",
       child({.onRead = [] { throw std::bad_alloc(); }}),
       Status::failed,
       true,
       kUnknownError,
       {}},

      {"a block with an entry", block(leaving("e", true, {})), Status::succeeded, false, {}, "e"},
      {"a block without an entry",
       block(leaving(nullptr, true, {})),
       Status::succeeded,
       false,
       {},
       {}},
      {"a block that succeeds in spite of an error",
       block(leaving("e", true, missing)),
       Status::succeeded,
       false,
       {},
       "e"},
      {"a block that fails with an error",
       block(leaving(nullptr, false, missing)),
       Status::failed,
       false,
       blockFailed + " (caused by " + missing.description() + ")",
       {}},
      {"a block that fails without an error",
       block(leaving(nullptr, false, {})),
       Status::failed,
       false,
       blockFailed,
       {}},
      {"a block that fails but leaves an entry", block(leaving("part", false, {})), Status::failed,
       false, blockFailed, "part"},
      {"a block that throws",
       block([](auto*, auto*) -> bool { throw std::runtime_error("thrown"); }),
       Status::failed,
       true,
       kUnknownError,
       {}},
      {"a block that throws what is no exception",
       block([](auto*, auto*) -> bool { throw 1; }),
       Status::failed,
       true,
       kUnknownError,
       {}},
      {"a block that throws behind an entry and an error",
       block([](auto* entry, auto* error) -> bool {
         *entry = entryOf("lost");
         *error = QSError::posix(EIO);
         throw std::bad_alloc();
       }),
       Status::failed,
       true,
       kUnknownError,
       {}},
      {"a block that is none", block(WorkBlock()), Status::failed, true, kUnknownError, {}},

      {"a body that succeeds",
       body([](QSError*) { return true; }),
       Status::succeeded,
       false,
       {},
       {}},
      {"a body without an error",
       body([](QSError*) { return false; }),
       Status::failed,
       true,
       kUnknownError,
       {}},
      {"an unknown code", body(failingWith(4)), Status::failed, true, kUnknownError, {}},
      {"a negative code", body(failingWith(-1)), Status::failed, true, kUnknownError, {}},
      {"code 1", body(failingWith(1)), Status::failed, true, launchFailed + "(null)", {}, false},
      {"code 2", body(failingWith(2)), Status::nonZeroExit, false, nonZero, {}},
      {"code 3", body(failingWith(3)), Status::failed, false, blockFailed, {}},
      {"a body that throws with code 1 in the slot",
       body([](QSError* error) -> bool {
         error->domain = kQSJobErrorDomain;
         error->code = 1;
         throw std::runtime_error("thrown");
       }),
       Status::failed,
       true,
       kUnknownError,
       {}},
  };
}

TEST_F(QSJobTest, EveryOutcomeEndsInTheFields) {
  for (const Outcome& outcome : outcomes()) {
    SCOPED_TRACE(outcome.name);
    const std::unique_ptr<QSJob> job = outcome.make(launcher());
    ASSERT_NO_THROW(job->beginSynchronousJob());
    EXPECT_EQ(job->jobStatus(), outcome.status);
    EXPECT_EQ(job->jobCompletelyFailed(), outcome.completelyFailed);
    EXPECT_EQ(job->jobExitedSuccessfully(), outcome.status == QSJobStatus::succeeded);
    EXPECT_EQ(job->failureReason(), outcome.reason);
    EXPECT_EQ(job->dateFinished(), outcome.finished ? std::optional(kNow) : std::nullopt);
    const auto entry = job->resultEntry();
    ASSERT_EQ(entry != nullptr, outcome.output.has_value());
    if (!entry) continue;
    EXPECT_EQ(entry->fileData()->text(), *outcome.output);
  }
}

TEST_F(QSJobTest, AChildsOutputTakesTheUsualMetadata) {
  script({.output = "out"});
  command_.beginSynchronousJob();
  EXPECT_EQ(command_.resultEntry()->fileMode(), 0644);
  EXPECT_EQ(command_.resultEntry()->fileUID(), 0U);
  EXPECT_TRUE(command_.resultEntry()->extendedAttributes().empty());
}

TEST_F(QSJobTest, KeepsTheVeryEntryThatABlockLeaves) {
  const auto left = entryOf("entry");
  QSJob job([&](auto* entry, auto*) { return *entry = left, true; }, "b");
  job.beginSynchronousJob();
  EXPECT_EQ(job.resultEntry(), left);
}

// --- the launch

TEST_F(QSJobTest, LaunchesExactlyWhatItWasGiven) {
  command_.beginSynchronousJob();
  ASSERT_EQ(launcher().requests().size(), 1U);
  const LaunchRequest request = launcher().requests()[0];
  EXPECT_EQ(request.executablePath, kProgram);
  EXPECT_EQ(request.arguments, (std::vector<std::string>{"-a", "b c", ""}));
  EXPECT_TRUE(request.captureOutput);
}

TEST_F(QSJobTest, AChildGetsTheClassOfTheRunningThread) {
  command_.beginSynchronousJob();
  for (const QOSClass qos : {QOSClass::utility, QOSClass::userInitiated}) {
    const ScopedQOS scope(qos);
    command_.beginSynchronousJob();
    EXPECT_EQ(launcher().requests().back().qos, qos);
  }
  EXPECT_EQ(launcher().requests().front().qos, QOSClass::standard);
}

TEST_F(QSJobTest, TheStatusIsNotRunningBeforeTheChildIsLaunched) {
  std::vector<QSJobStatus> seen;
  launcher().onLaunch([&](FakeChild&) { seen.push_back(command_.jobStatus()); });
  script({.onRead = [&] { seen.push_back(command_.jobStatus()); }});
  command_.beginSynchronousJob();
  EXPECT_EQ(seen, (std::vector{QSJobStatus::notStarted, QSJobStatus::running}));
}

TEST_F(QSJobTest, ABlockRunsOnTheCallersThreadWithTwoEmptySlots) {
  bool ran = false;
  QSJob* self = nullptr;
  QSJob job(
      [&](std::shared_ptr<const QSJobEntry>* entry, QSError* error) {
        ran = true;
        EXPECT_EQ(self->jobStatus(), QSJobStatus::running);
        EXPECT_EQ(currentQOS(), QOSClass::userInitiated);
        EXPECT_NE(entry, nullptr);
        EXPECT_EQ(*entry, nullptr);
        EXPECT_NE(error, nullptr);
        EXPECT_FALSE(*error);
        return true;
      },
      "b");
  self = &job;
  const ScopedQOS scope(QOSClass::userInitiated);
  job.beginSynchronousJob();
  EXPECT_TRUE(ran);
}

TEST_F(QSJobTest, AFinishedJobLetsGoOfItsChild) {
  script({.output = "out"});
  command_.beginSynchronousJob();
  ASSERT_EQ(launcher().children().size(), 1U);
  EXPECT_TRUE(launcher().children()[0]->wasReleased());
  EXPECT_FALSE(launcher().children()[0]->wasAbandoned());
}

TEST_F(QSJobTest, AChildWhoseOutputIsLostIsKilledAndReaped) {
  script({.hangs = true, .onRead = [] { throw std::bad_alloc(); }});
  command_.beginSynchronousJob();
  const auto child = launcher().child(kProgram);
  EXPECT_TRUE(child->wasKilled());
  EXPECT_TRUE(child->wasReaped());
  EXPECT_FALSE(child->wasAbandoned());
  EXPECT_TRUE(child->wasReleased());
  EXPECT_EQ(command_.failureReason(), kUnknownError);
  EXPECT_EQ(command_.resultEntry(), nullptr);
}

// --- runs after the first

TEST_F(QSJobTest, EveryRunStartsOver) {
  script({.output = "first", .exitCode = 7});
  runAt(1000, command_);
  ASSERT_EQ(command_.jobStatus(), QSJobStatus::nonZeroExit);

  launcher().onLaunch([&](FakeChild&) {
    EXPECT_EQ(command_.jobStatus(), QSJobStatus::notStarted);
    EXPECT_EQ(command_.failureReason(), std::nullopt);
    EXPECT_EQ(command_.resultEntry(), nullptr);
    EXPECT_EQ(command_.dateFinished(), QSDate{1000});
  });
  script({.output = "second"});
  runAt(2000, command_);
  EXPECT_EQ(command_.jobStatus(), QSJobStatus::succeeded);
  EXPECT_TRUE(command_.jobExitedSuccessfully());
  EXPECT_EQ(command_.resultEntry()->fileData()->text(), "second");
  EXPECT_EQ(command_.dateFinished(), QSDate{2000});
}

TEST_F(QSJobTest, ALaunchThatFailsOnASecondRunShowsTheDateOfTheFirst) {
  runAt(1000, command_);
  script({.launchError = QSError::posix(ENOENT)});
  runAt(2000, command_);
  EXPECT_EQ(command_.jobStatus(), QSJobStatus::failed);
  EXPECT_TRUE(command_.jobCompletelyFailed());
  EXPECT_FALSE(command_.jobExitedSuccessfully());
  EXPECT_EQ(command_.resultEntry(), nullptr);
  EXPECT_EQ(command_.dateFinished(), QSDate{1000});
}

TEST_F(QSJobTest, ACompleteFailureIsForgottenByTheNextRun) {
  script({.launchError = QSError::posix(ENOENT)});
  command_.beginSynchronousJob();
  ASSERT_TRUE(command_.jobCompletelyFailed());
  script({.exitCode = 1});
  command_.beginSynchronousJob();
  EXPECT_FALSE(command_.jobCompletelyFailed());
}

// --- description

std::string descriptionOf(const QSJob& job, const char* rest) {
  return formatted("### QSJob:%p ###\n", static_cast<const void*>(&job)) + rest;
}

TEST_F(QSJobTest, DescribesAJobThatHasNotRun) {
  EXPECT_EQ(command_.description(),
            descriptionOf(command_,
                          "OutputPath:Logs/program.txt\nisTask:1\nisWorkBlock:0\n"
                          "jobCompletelyFailed:0\njobExitedSuccessfully:0\nfailureReason:(null)\n"
                          "Size:0\nDateFinished:(null)"));
}

TEST_F(QSJobTest, DescribesAFinishedJob) {
  script({.output = "12345"});
  command_.beginSynchronousJob();
  EXPECT_EQ(command_.description(),
            descriptionOf(command_,
                          "OutputPath:Logs/program.txt\nisTask:1\nisWorkBlock:0\n"
                          "jobCompletelyFailed:0\njobExitedSuccessfully:1\nfailureReason:(null)\n"
                          "Size:5\nDateFinished:2023-11-14 22:13:20 +0000"));
}

TEST_F(QSJobTest, DescribesAFailedBlock) {
  QSJob job([](auto*, auto*) -> bool { throw 1; }, "b/100%s");
  job.beginSynchronousJob();
  EXPECT_EQ(job.description(),
            descriptionOf(job,
                          "OutputPath:b/100%s\nisTask:0\nisWorkBlock:1\njobCompletelyFailed:1\n"
                          "jobExitedSuccessfully:0\n"
                          "failureReason:QSJob failed with an unknown error.\n"
                          "Size:0\nDateFinished:2023-11-14 22:13:20 +0000"));
}

}  // namespace
}  // namespace quillsift
