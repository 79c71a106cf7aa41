#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <memory>

#include "client/Client.h"
#include "client/JsonReporter.h"
#include "client/PlainReporter.h"
#include "daemon/protocol/QSServiceProtocols.h"
#include "tests/client/CapturedOutput.h"
#include "tests/doubles/FakeRemoteService.h"

namespace quillsift {
namespace {

using namespace std::chrono_literals;
using Command = CommandLine::Command;

constexpr double kDate = 1700000000;  // 2023-11-14 22:13:20
constexpr const char* kFinished =
    "The session finished at 2023-11-14 22:13:20 +0000: 1 job, 5 bytes collected.\n"
    "  1 succeeded\n";
constexpr const char* kArchive = "/x.tgz";
constexpr const char* kUnfinished = "/x.tgz.inprogress";

class ClientTest : public testing::Test {
 protected:
  static WireDictionary job(const std::string& name, std::int64_t status, std::uint64_t size = 0,
                            const std::string& reason = "", bool sensitive = false) {
    return FakeRemoteDaemon::job(name, name + ".txt", status, size, reason, sensitive);
  }

  int run(Command command, const std::string& destination = kArchive) {
    line_.command = command;
    if (!line_.destination) line_.destination = destination;
    const auto connector = daemon_.connector();
    PlainReporter plain(out_.output(), err_.output());
    JsonReporter json(out_.output(), err_.output());
    Reporter& reporter = line_.json ? static_cast<Reporter&>(json) : plain;
    Client client(line_, {.connector = *connector,
                          .reporter = reporter,
                          .now = [this] { return daemon_.now(); },
                          .archiveName = [](bool) { return std::string("name.tgz"); },
                          .interruptDescriptor = daemon_.interruptDescriptor()});
    const auto code = static_cast<int>(client.run());
    output_ = out_.take();
    errors_ = err_.take();
    return code;
  }

  // What the daemon does of its own accord, as steps of the script.
  void thenRuns(const WireDictionary& record) {
    daemon_.then([this, record] { daemon_.jobChanged(record); });
  }
  void thenFinishes() {
    daemon_.then([this] { daemon_.dateFinished = kDate; });
  }
  void thenSaves(const std::string& path = kArchive) {
    daemon_.then([this, path] { daemon_.saveReported(0, 0, path + ".inprogress"); })
        .then([this, path] { daemon_.saveReported(0.5, 1, path + ".inprogress"); })
        .then([this, path] {
          daemon_.saveReported(1, 2, path);
          daemon_.cleared();
        });
  }
  // The same, but only once the client has asked for it.
  void savesWhenAsked() {
    daemon_.answerNext(wire::kSaveQuillsift, [this](const auto&, QSError*) {
      thenSaves();
      return std::vector<WireValue>{WireValue(true)};
    });
  }
  void isFinished() {
    daemon_.jobs = {job("a", 4, 5)};
    daemon_.dateFinished = kDate;
  }
  bool said(const std::string& text) const { return output_.find(text) != std::string::npos; }
  bool complained(const std::string& text) const { return errors_.find(text) != std::string::npos; }
  std::size_t starts() const { return daemon_.callsOf(wire::kStartQuillsift); }
  std::size_t saves() const { return daemon_.callsOf(wire::kSaveQuillsift); }

  FakeRemoteDaemon daemon_;
  CommandLine line_;
  CapturedOutput out_;
  CapturedOutput err_;
  std::string output_;
  std::string errors_;
};

// --- collect ---

TEST_F(ClientTest, CollectStartsWatchesAndSaves) {
  daemon_.then([&] { daemon_.started(); });
  thenRuns(job("a", 1));
  thenRuns(job("a", 4, 5));
  thenFinishes();
  savesWhenAsked();
  EXPECT_EQ(run(Command::collect), 0);
  EXPECT_EQ(output_, std::string("Started a session.\n"
                                 "done      a.txt (5 bytes)\n") +
                         kFinished +
                         "Saving to /x.tgz\n"
                         "Saving: 50%\n"
                         "Saving: 100%\n"
                         "Saved to /x.tgz\n");
  EXPECT_EQ(errors_, "");
  EXPECT_EQ(starts(), 1u);
  EXPECT_EQ(daemon_.calls().back().arguments,
            (std::vector<WireValue>{WireValue(kArchive), WireValue(true), WireValue(true)}));
}

TEST_F(ClientTest, CollectIsNotConfusedByWhatItsOwnStartClears) {
  daemon_.answerNext(wire::kStartQuillsift, [&](const auto&, QSError*) {
    daemon_.cleared();  // a session without jobs was there
    return std::vector<WireValue>{WireValue(true)};
  });
  daemon_.then([&] { daemon_.started(); });
  thenRuns(job("a", 4, 5));
  thenFinishes();
  savesWhenAsked();
  EXPECT_EQ(run(Command::collect), 0) << errors_;
}

TEST_F(ClientTest, CollectJoinsARunningSession) {
  daemon_.jobs = {job("a", 1), job("b", 3, 0, "why")};
  thenRuns(job("a", 4, 5));
  thenFinishes();
  savesWhenAsked();
  EXPECT_EQ(run(Command::collect), 0);
  EXPECT_TRUE(
      said("Joined the running session: 1 running, 0 done, 1 failed.\n"
           "done      a.txt (5 bytes)\n"))
      << output_;
  EXPECT_TRUE(said("  1 failed:\n    b.txt: why\n")) << output_;
  EXPECT_EQ(starts(), 0u);
}

TEST_F(ClientTest, CollectJoinsTheSessionThatGotAheadOfItsStart) {
  daemon_.answerNext(wire::kStartQuillsift, [&](const auto&, QSError*) {
    daemon_.jobs = {job("a", 1)};
    return std::vector<WireValue>{WireValue(false)};
  });
  thenRuns(job("a", 4, 5));
  thenFinishes();
  savesWhenAsked();
  EXPECT_EQ(run(Command::collect), 0);
  EXPECT_TRUE(said("Joined the running session")) << output_;
}

TEST_F(ClientTest, CollectTakesAFinishedSessionRatherThanDropIt) {
  isFinished();
  thenSaves();
  EXPECT_EQ(run(Command::collect), 0);
  EXPECT_TRUE(
      said("Found a session that finished at 2023-11-14 22:13:20 +0000: saving that one. "
           "(\"quillsift clear\" drops it.)\n"))
      << output_;
  EXPECT_EQ(starts(), 0u);
}

TEST_F(ClientTest, CollectEndsWith4WhenTheDaemonKeepsRefusing) {
  for (int i = 0; i < 100; ++i)
    daemon_.answerNext(wire::kStartQuillsift, false);
  EXPECT_EQ(run(Command::collect), 4);
  EXPECT_EQ(errors_,
            "quillsift: the daemon refused to start: a session is beginning or ending, or a save "
            "is under way\n");
  EXPECT_GE(starts(), 10u);
  EXPECT_LE(starts(), 35u);
}

TEST_F(ClientTest, CollectStartsOnceASaveThatWasInTheWayHasEnded) {
  daemon_.answerNext(wire::kStartQuillsift, false);
  daemon_.answerNext(wire::kStartQuillsift, false);
  daemon_.then([] {}).then([] {}).then([&] { daemon_.started(); });
  thenRuns(job("a", 4, 5));
  thenFinishes();
  savesWhenAsked();
  EXPECT_EQ(run(Command::collect), 0) << errors_;
  EXPECT_EQ(starts(), 3u);
}

TEST_F(ClientTest, CollectEndsWith1WhenSomebodyElseClearsTheSession) {
  daemon_.jobs = {job("a", 1)};
  daemon_.then([&] { daemon_.cleared(); });
  EXPECT_EQ(run(Command::collect), 1);
  EXPECT_EQ(errors_, "quillsift: the session was cleared by another client\n");
  EXPECT_EQ(saves(), 0u);
}

TEST_F(ClientTest, CollectSaysWhereAnotherClientHasSavedTheSession) {
  daemon_.jobs = {job("a", 1)};
  daemon_.then([&] {
    daemon_.saveReported(0, 0, "/theirs.tgz.inprogress");
    daemon_.saveReported(1, 2, "/theirs.tgz");
    daemon_.cleared();
  });
  EXPECT_EQ(run(Command::collect), 1);
  EXPECT_EQ(errors_,
            "quillsift: the session was cleared by another client, which saved it to "
            "/theirs.tgz\n");
}

TEST_F(ClientTest, CollectStartsAgainWhenItsSessionWasClearedBeforeItShowed) {
  // The clear comes between our start and its announcement: nothing tells it from our own.
  daemon_.then([&] { daemon_.cleared(); }).then([&] { daemon_.started(); });
  for (int i = 0; i < 200; ++i)
    daemon_.then([] {});
  thenRuns(job("a", 4, 5));
  thenFinishes();
  savesWhenAsked();
  EXPECT_EQ(run(Command::collect), 0) << errors_;
  EXPECT_TRUE(said("The session was cleared before it had recorded anything; started another.\n"))
      << output_;
  EXPECT_EQ(starts(), 2u);
}

TEST_F(ClientTest, CollectWaitsForASlowSessionThatIsStillRunning) {
  daemon_.then([&] { daemon_.started(); });
  daemon_.answerNext(wire::kStartQuillsift, true);
  daemon_.answerNext(wire::kStartQuillsift, false);  // asked again: it runs
  for (int i = 0; i < 200; ++i)
    daemon_.then([] {});
  thenRuns(job("a", 4, 5));
  thenFinishes();
  savesWhenAsked();
  EXPECT_EQ(run(Command::collect), 0) << errors_;
  EXPECT_EQ(starts(), 2u);
}

TEST_F(ClientTest, CollectIsInterruptedAndSaysHowToComeBack) {
  daemon_.then([&] { daemon_.started(); });
  thenRuns(job("a", 1));
  daemon_.then([&] { daemon_.interrupt(); });
  EXPECT_EQ(run(Command::collect), 1);
  EXPECT_EQ(errors_,
            "quillsift: interrupted; the session stays in the daemon: \"quillsift collect\" joins "
            "it and saves it, \"quillsift watch\" shows it\n");
  EXPECT_EQ(daemon_.callsOf(wire::kClearQuillsiftData), 0u);
  EXPECT_EQ(saves(), 0u);
}

TEST_F(ClientTest, IsInterruptedWhileItWaitsForAnAnswer) {
  daemon_.answerNext(wire::kQueryJobStatusInformation, [&](const auto&, QSError* error) {
    daemon_.interrupt();
    setError(error, QSError::posix(ETIMEDOUT));
    return std::nullopt;
  });
  EXPECT_EQ(run(Command::status), 1);
  EXPECT_EQ(errors_, "quillsift: interrupted\n");
}

TEST_F(ClientTest, NamesThePrivateSocketInWhatItAdvises) {
  line_.socketPath = "/tmp/private";
  daemon_.jobs = {job("a", 1)};
  daemon_.then([&] { daemon_.interrupt(); });
  EXPECT_EQ(run(Command::collect), 1);
  EXPECT_TRUE(complained("\"quillsift --socket /tmp/private collect\"")) << errors_;
}

TEST_F(ClientTest, CollectEndsWith3WhenTheDaemonVanishes) {
  daemon_.jobs = {job("a", 1)};
  daemon_.then([&] { daemon_.disconnect(); });
  EXPECT_EQ(run(Command::collect), 3);
  EXPECT_EQ(errors_, "quillsift: the connection to the daemon broke\n");
}

TEST_F(ClientTest, CollectChecksTheDestinationBeforeItCollects) {
  EXPECT_EQ(run(Command::collect, "/no/such/directory/x.tgz"), 1);
  EXPECT_EQ(errors_, "quillsift: cannot save into /no/such/directory: No such file or directory\n");
  EXPECT_TRUE(daemon_.calls().empty());
}

TEST_F(ClientTest, CollectWaitsForADaemonThatSavesByItself) {
  daemon_.jobs = {job("a", 4, 5)};
  for (int i = 0; i < 20; ++i)
    daemon_.then([] {});
  thenFinishes();
  savesWhenAsked();
  EXPECT_EQ(run(Command::collect), 0) << errors_;
  EXPECT_TRUE(
      said("No job runs, and the session has not finished; perhaps the daemon is saving it "
           "by itself. Waiting.\n"))
      << output_;
}

TEST_F(ClientTest, CollectWaitsForADaemonThatDoesNotAnswerInTime) {
  daemon_.jobs = {job("a", 4, 5)};
  daemon_.answerNext(wire::kQueryJobStatusInformation, [&](const auto&, QSError*) {
    daemon_.failNext(wire::kQueryJobStatusInformation, ETIMEDOUT);
    return std::vector<WireValue>{WireValue(WireArray{WireValue(job("a", 4, 5))}),
                                  WireValue(WireArray{})};
  });
  for (int i = 0; i < 10; ++i)
    daemon_.then([] {});
  thenFinishes();
  // Until the next query, which is put off while there is no answer.
  savesWhenAsked();
  EXPECT_EQ(run(Command::collect), 0) << errors_;
  EXPECT_TRUE(said("The daemon is busy; waiting.\n")) << output_;
}

TEST_F(ClientTest, EndsWhenItsOutputIsClosed) {
  std::signal(SIGPIPE, SIG_IGN);
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  ::close(ends[0]);
  const FileDescriptor closed(ends[1]);
  Output output(closed.get());
  PlainReporter reporter(output, err_.output());
  daemon_.then([&] { daemon_.started(); });
  line_.command = Command::collect;
  const auto connector = daemon_.connector();
  Client client(line_, {.connector = *connector,
                        .reporter = reporter,
                        .now = [this] { return daemon_.now(); },
                        .archiveName = [](bool) { return std::string("name.tgz"); },
                        .interruptDescriptor = -1});
  EXPECT_EQ(client.run(), ExitCode::failed);
  EXPECT_EQ(err_.take(),
            "quillsift: cannot write to standard output: Broken pipe; the session stays in the "
            "daemon: \"quillsift collect\" joins it and saves it, \"quillsift watch\" shows it\n");
}

// --- save ---

TEST_F(ClientTest, SavePassesItsOptionsOn) {
  isFinished();
  daemon_.jobs.push_back(job("secret", 4, 9, "", true));
  line_.withoutSensitive = true;
  thenSaves();
  EXPECT_EQ(run(Command::save), 0) << errors_;
  EXPECT_EQ(daemon_.calls().back().arguments,
            (std::vector<WireValue>{WireValue(kArchive), WireValue(true), WireValue(false)}));
  EXPECT_TRUE(said("Saved to /x.tgz, left out 1 sensitive result\n")) << output_;
}

TEST_F(ClientTest, SaveAsADirectoryIsAskedForAndItsFailureTold) {
  isFinished();
  line_.directory = true;
  daemon_.then([&] { daemon_.saveReported(0, 0, "/no/such/dir"); }).then([&] {
    daemon_.saveReported(-1, 3, "/no/such/dir");
  });
  EXPECT_EQ(run(Command::save, "/no/such/dir"), 1);
  EXPECT_EQ(daemon_.calls().back().arguments,
            (std::vector<WireValue>{WireValue("/no/such/dir"), WireValue(false), WireValue(true)}));
  EXPECT_EQ(errors_,
            "quillsift: the daemon could not save to /no/such/dir; the system log may tell why, "
            "the session is kept\n");
  EXPECT_FALSE(said("Saved"));
}

TEST_F(ClientTest, SaveEndsWith1WhenItFails) {
  isFinished();
  daemon_.then([&] { daemon_.saveReported(0, 0, kUnfinished); })
      .then([&] { daemon_.saveReported(0.5, 1, kUnfinished); })
      .then([&] { daemon_.saveReported(-1, 3, kUnfinished); });
  EXPECT_EQ(run(Command::save), 1);
  EXPECT_TRUE(complained("the daemon could not save to /x.tgz")) << errors_;
}

TEST_F(ClientTest, SaveEndsOnceTheSessionIsGone) {
  isFinished();
  daemon_.then([&] { daemon_.saveReported(1, 2, kArchive); }).then([] {}).then([] {}).then([&] {
    daemon_.cleared();
  });
  EXPECT_EQ(run(Command::save), 0);
  EXPECT_TRUE(daemon_.scriptHasEnded());
  EXPECT_TRUE(said("Saved to /x.tgz\n")) << output_;
}

TEST_F(ClientTest, SaveThatHasSucceededStaysASuccessWhateverComesAfterIt) {
  const FakeRemoteDaemon::Step ends[] = {[&] { daemon_.disconnect(); },
                                         [&] { daemon_.interrupt(); },
                                         [&] {  // another client's session comes after it
                                           daemon_.started();
                                           daemon_.jobChanged(job("other", 4, 1));
                                           daemon_.cleared();
                                         },
                                         [] {}};  // never cleared
  for (const auto& end : ends) {
    daemon_ = FakeRemoteDaemon();
    isFinished();
    daemon_.then([&] { daemon_.saveReported(1, 2, kArchive); }).then(end);
    EXPECT_EQ(run(Command::save), 0) << errors_;
    EXPECT_EQ(errors_, "");
    EXPECT_TRUE(output_.ends_with("Saved to /x.tgz\n")) << output_;
  }
}

TEST_F(ClientTest, SaveThatFailsHasNoProgressToTell) {
  isFinished();
  line_.json = true;
  daemon_.then([&] { daemon_.saveReported(-1, 3, kUnfinished); });
  EXPECT_EQ(run(Command::save), 1);
  EXPECT_FALSE(said("saveProgress")) << output_;
  EXPECT_TRUE(said(R"({"event":"error","exitCode":1,)")) << output_;
}

TEST_F(ClientTest, SaveHasNothingToSave) {
  EXPECT_EQ(run(Command::save), 1);
  EXPECT_EQ(errors_,
            "quillsift: there is nothing to save: \"quillsift collect\" collects and saves\n");
  EXPECT_EQ(saves(), 0u);
}

TEST_F(ClientTest, SaveIsRefusedWhileASessionRuns) {
  daemon_.jobs = {job("a", 1)};
  EXPECT_EQ(run(Command::save), 4);
  EXPECT_TRUE(complained("a session is running")) << errors_;
}

TEST_F(ClientTest, SaveIsRefusedByTheDaemonWhenASessionGetsAhead) {
  isFinished();
  daemon_.answerNext(wire::kSaveQuillsift, [&](const auto&, QSError*) {
    daemon_.cleared();
    daemon_.started();
    daemon_.jobs = {job("new", 1)};
    return std::vector<WireValue>{WireValue(false)};
  });
  EXPECT_EQ(run(Command::save), 4);
  EXPECT_EQ(errors_, "quillsift: the daemon refused the save: a session is running\n");
}

TEST_F(ClientTest, SaveTriesAgainWhileTheSessionIsJustEnding) {
  // The date is there a moment before the daemon takes saves.
  isFinished();
  for (int i = 0; i < 3; ++i)
    daemon_.answerNext(wire::kSaveQuillsift, false);
  daemon_.then([] {}).then([] {}).then([] {});
  thenSaves();
  EXPECT_EQ(run(Command::save), 0) << errors_;
  EXPECT_EQ(saves(), 4u);
}

TEST_F(ClientTest, SaveGivesUpWhenTheDaemonKeepsRefusing) {
  isFinished();
  for (int i = 0; i < 1000; ++i)
    daemon_.answerNext(wire::kSaveQuillsift, false);
  EXPECT_EQ(run(Command::save), 4);
  EXPECT_LE(saves(), 60u);
}

TEST_F(ClientTest, SaveTellsItsOwnProgressFromAnotherClients) {
  isFinished();
  daemon_.then([&] { daemon_.saveReported(0.9, 1, "/theirs.tgz.inprogress"); }).then([&] {
    daemon_.saveReported(-1, 3, "/theirs.tgz.inprogress");
  });
  thenSaves();
  EXPECT_EQ(run(Command::save), 0) << errors_;
  EXPECT_FALSE(said("90%")) << output_;
}

TEST_F(ClientTest, SaveWaitsForAnotherClientsSaveThatItKnowsOf) {
  daemon_.jobs = {job("a", 4, 5)};
  daemon_.dateFinished = kDate;
  daemon_.answerNext(wire::kQueryJobStatusInformation, [&](const auto&, QSError*) {
    daemon_.saveReported(0.2, 1, "/theirs.tgz.inprogress");
    return std::vector<WireValue>{WireValue(WireArray{WireValue(job("a", 4, 5))}),
                                  WireValue(WireArray{WireValue(kDate)})};
  });
  daemon_.then([&] { daemon_.saveReported(-1, 3, "/theirs.tgz.inprogress"); });
  thenSaves();
  EXPECT_EQ(run(Command::save), 0) << errors_;
  EXPECT_TRUE(said("Waiting for another client's save to end.\n")) << output_;
}

TEST_F(ClientTest, SaveAsksForNothingOnceAnotherClientHasSaved) {
  isFinished();
  daemon_.answerNext(wire::kQueryJobStatusInformation, [&](const auto&, QSError*) {
    daemon_.saveReported(0.2, 1, "/theirs.tgz.inprogress");
    return std::vector<WireValue>{WireValue(WireArray{WireValue(job("a", 4, 5))}),
                                  WireValue(WireArray{WireValue(kDate)})};
  });
  daemon_.then([&] { daemon_.saveReported(1, 2, "/theirs.tgz"); }).then([&] { daemon_.cleared(); });
  EXPECT_EQ(run(Command::save), 1);
  EXPECT_EQ(errors_,
            "quillsift: the session was cleared before it could be saved; another client has "
            "saved it to /theirs.tgz\n");
  EXPECT_EQ(saves(), 0u);
}

TEST_F(ClientTest, SaveThatHadToWaitForAnotherOneAdmitsThatItHoldsNothing) {
  isFinished();
  daemon_.failNext(wire::kSaveQuillsift, ETIMEDOUT);
  daemon_.then([&] { daemon_.saveReported(0.9, 1, "/theirs.tgz.inprogress"); }).then([&] {
    daemon_.saveReported(1, 2, "/theirs.tgz");
    daemon_.cleared();
  });
  thenSaves();
  EXPECT_EQ(run(Command::save), 1);
  EXPECT_TRUE(said("The daemon is busy, the save waits its turn.\n")) << output_;
  EXPECT_EQ(errors_,
            "quillsift: the session was cleared before it could be saved; another client has "
            "saved it to /theirs.tgz; /x.tgz holds nothing\n");
}

TEST_F(ClientTest, SaveThatWaitsIsRefusedWhenASessionStartsFirst) {
  isFinished();
  daemon_.failNext(wire::kSaveQuillsift, ETIMEDOUT);
  daemon_.then([&] {
    daemon_.cleared();
    daemon_.started();
  });
  EXPECT_EQ(run(Command::save), 4);
}

TEST_F(ClientTest, SaveThatWaitsIsCarriedOutInTheEnd) {
  isFinished();
  daemon_.failNext(wire::kSaveQuillsift, ETIMEDOUT);
  thenSaves();
  EXPECT_EQ(run(Command::save), 0) << errors_;
}

TEST_F(ClientTest, SaveGoesOnWithoutTheClientThatIsInterrupted) {
  isFinished();
  daemon_.then([&] { daemon_.saveReported(0, 0, kUnfinished); }).then([&] { daemon_.interrupt(); });
  EXPECT_EQ(run(Command::save), 1);
  EXPECT_EQ(errors_, "quillsift: interrupted; the daemon goes on saving to /x.tgz\n");
}

TEST_F(ClientTest, SaveEndsWith3WhenTheDaemonVanishes) {
  isFinished();
  daemon_.then([&] { daemon_.saveReported(0, 0, kUnfinished); }).then([&] {
    daemon_.disconnect();
  });
  EXPECT_EQ(run(Command::save), 3);
  EXPECT_EQ(errors_,
            "quillsift: the connection to the daemon broke; /x.tgz is whole if it is there at "
            "all\n");
}

TEST_F(ClientTest, SaveAsADirectoryTellsThatItMayBeIncompleteWhenTheDaemonVanishes) {
  isFinished();
  line_.directory = true;
  daemon_.then([&] { daemon_.saveReported(0, 0, "/no/such/dir"); }).then([&] {
    daemon_.disconnect();
  });
  EXPECT_EQ(run(Command::save, "/no/such/dir"), 3);
  EXPECT_EQ(errors_,
            "quillsift: the connection to the daemon broke; /no/such/dir may be incomplete\n");
}

// --- start, status, watch, clear ---

TEST_F(ClientTest, StartStarts) {
  EXPECT_EQ(run(Command::start), 0);
  EXPECT_EQ(output_,
            "Started a session. \"quillsift watch\" shows it, \"quillsift collect\" joins it and "
            "saves it.\n");
}

TEST_F(ClientTest, StartIsRefusedAndSaysWhy) {
  daemon_.answerNext(wire::kStartQuillsift, false);
  daemon_.jobs = {job("a", 1)};
  EXPECT_EQ(run(Command::start), 4);
  EXPECT_EQ(errors_,
            "quillsift: the daemon refused to start: a session is running; \"quillsift watch\" "
            "shows it\n");

  daemon_.answerNext(wire::kStartQuillsift, false);
  daemon_.dateFinished = kDate;
  EXPECT_EQ(run(Command::start), 4);
  EXPECT_EQ(errors_,
            "quillsift: the daemon refused to start: the last session is just ending or being "
            "saved\n");
}

TEST_F(ClientTest, StartEndsWith1WhenTheDaemonDoesNotAnswer) {
  daemon_.failNext(wire::kStartQuillsift, ETIMEDOUT);
  EXPECT_EQ(run(Command::start), 1);
  EXPECT_EQ(errors_, "quillsift: the daemon is busy and has not answered startQuillsift yet\n");
}

TEST_F(ClientTest, StatusTellsHowThingsStand) {
  EXPECT_EQ(run(Command::status), 0);
  EXPECT_EQ(output_, "No session: nothing is collected.\n");
  isFinished();
  EXPECT_EQ(run(Command::status), 0);
  EXPECT_EQ(output_, kFinished);
  EXPECT_EQ(starts(), 0u);
}

TEST_F(ClientTest, StatusListsEveryJobForPrograms) {
  daemon_.jobs = {job("a", 4, 5), job("b", 1)};
  line_.json = true;
  EXPECT_EQ(run(Command::status), 0);
  EXPECT_EQ(output_,
            R"({"event":"job","uuid":"a","path":"a.txt","status":4,"state":"succeeded","size":5,)"
            R"("sensitive":false,"dateFinished":null,"reason":null})"
            "\n"
            R"({"event":"job","uuid":"b","path":"b.txt","status":1,"state":"running","size":0,)"
            R"("sensitive":false,"dateFinished":null,"reason":null})"
            "\n"
            R"({"event":"summary","session":"running","dateFinished":null,"jobs":2,"succeeded":1,)"
            R"("withoutOutput":0,"nonZeroExit":0,"failed":0,"unfinished":1,"bytes":5,"problems":[)"
            R"({"path":"b.txt","status":1,"state":"running","reason":null,"size":0}]})"
            "\n");
}

TEST_F(ClientTest, WatchWaitsForASessionAndEndsWithIt) {
  daemon_.then([&] { daemon_.started(); });
  thenRuns(job("a", 4, 5));
  thenFinishes();
  EXPECT_EQ(run(Command::watch), 0);
  EXPECT_EQ(output_, std::string("No session yet; waiting for one to start.\n"
                                 "A session has started.\n"
                                 "done      a.txt (5 bytes)\n") +
                         kFinished);
  EXPECT_EQ(starts(), 0u);
  EXPECT_EQ(saves(), 0u);
}

TEST_F(ClientTest, WatchShowsAFinishedSessionAtOnce) {
  isFinished();
  EXPECT_EQ(run(Command::watch), 0);
  EXPECT_EQ(output_, kFinished);
}

TEST_F(ClientTest, WatchEndsWhenTheSessionIsCleared) {
  daemon_.jobs = {job("a", 1)};
  daemon_.then([&] { daemon_.cleared(); });
  EXPECT_EQ(run(Command::watch), 1);
}

TEST_F(ClientTest, WatchIsInterruptedWithoutASession) {
  daemon_.then([&] { daemon_.interrupt(); });
  EXPECT_EQ(run(Command::watch), 1);
  EXPECT_EQ(errors_, "quillsift: interrupted\n");
}

TEST_F(ClientTest, ClearClears) {
  isFinished();
  EXPECT_EQ(run(Command::clear), 0);
  EXPECT_EQ(output_, "Cleared.\n");
  EXPECT_TRUE(daemon_.jobs.empty());
}

TEST_F(ClientTest, ClearWaitsForASaveThatRuns) {
  isFinished();
  daemon_.failNext(wire::kClearQuillsiftData, ETIMEDOUT);
  daemon_.then([] {}).then([&] { daemon_.cleared(); });
  EXPECT_EQ(run(Command::clear), 0);
  EXPECT_EQ(output_,
            "The daemon is busy, perhaps saving; it clears after that.\n"
            "Cleared.\n");
  EXPECT_EQ(daemon_.callsOf(wire::kClearQuillsiftData), 1u);
}

// --- any command ---

TEST_F(ClientTest, EndsWith3WithoutADaemon) {
  for (const Command command : {Command::collect, Command::start, Command::status, Command::watch,
                                Command::save, Command::clear}) {
    daemon_.refuseConnections(ECONNREFUSED);
    EXPECT_EQ(run(command), 3);
    EXPECT_EQ(errors_,
              "quillsift: no daemon answers at /run/io.vantor.quillsiftd/socket: Connection "
              "refused\n");
  }
}

TEST_F(ClientTest, EndsWith3WhenNotAdmitted) {
  daemon_.refuseConnections(EACCES);
  EXPECT_EQ(run(Command::status), 3);
  EXPECT_TRUE(complained("does not admit this user")) << errors_;
}

TEST_F(ClientTest, EndsWith1WhenTheDaemonSpeaksGibberish) {
  daemon_.answerNext(wire::kQueryJobStatusInformation,
                     [](const auto&, QSError*) { return std::vector<WireValue>{}; });
  EXPECT_EQ(run(Command::status), 1);
  EXPECT_EQ(errors_,
            "quillsift: the daemon's answer to queryJobStatusInformationWithReply cannot be "
            "read\n");
}

TEST_F(ClientTest, TellsEventsToProgramsOneALine) {
  line_.json = true;
  daemon_.then([&] { daemon_.started(); });
  thenRuns(job("a", 4, 5));
  thenFinishes();
  savesWhenAsked();
  EXPECT_EQ(run(Command::collect), 0);
  EXPECT_EQ(
      output_,
      R"({"event":"started"})"
      "\n"
      R"({"event":"job","uuid":"a","path":"a.txt","status":4,"state":"succeeded","size":5,)"
      R"("sensitive":false,"dateFinished":null,"reason":null})"
      "\n"
      R"({"event":"summary","session":"finished","dateFinished":1700000000,"jobs":1,"succeeded":1,)"
      R"("withoutOutput":0,"nonZeroExit":0,"failed":0,"unfinished":0,"bytes":5,"problems":[]})"
      "\n"
      R"({"event":"saving","path":"/x.tgz","archive":true,"withoutSensitive":false})"
      "\n"
      R"({"event":"saveProgress","progress":0,"path":"/x.tgz.inprogress"})"
      "\n"
      R"({"event":"saveProgress","progress":0.5,"path":"/x.tgz.inprogress"})"
      "\n"
      R"({"event":"saveProgress","progress":1,"path":"/x.tgz"})"
      "\n"
      R"({"event":"saved","path":"/x.tgz","archive":true,"withoutSensitive":false,"leftOut":0})"
      "\n");
}

}  // namespace
}  // namespace quillsift
