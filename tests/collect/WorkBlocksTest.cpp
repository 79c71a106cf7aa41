// The small work blocks: plain reads, the note about preboot logs, the window server's file, the
// log from before the operating system, and reports.

#include <gmock/gmock.h>

#include <cerrno>
#include <functional>
#include <optional>

#include "collect/PaneInformation.h"
#include "collect/PreOSLog.h"
#include "collect/PrebootReadme.h"
#include "collect/ReportWork.h"
#include "collect/WholeFileRead.h"
#include "tests/collect/PlanFixture.h"

namespace quillsift {
namespace {

using testing::IsEmpty;

using WholeFileReadTest = PlanFixture;

TEST_F(WholeFileReadTest, CapturesTheBytesWithoutOwnerAndMode) {
  const auto file = platform.fileSystem().addFile("/logs/panic", "bytes");
  file->metadata.ownerID = 501;
  file->metadata.accessMask = 0100600;
  const WorkOutcome outcome(wholeFileReadWork("/logs/panic"));
  EXPECT_TRUE(outcome.succeeded);
  EXPECT_EQ(outcome.text(), "bytes");
  EXPECT_EQ(outcome.entry->fileUID(), 0U);
  EXPECT_EQ(outcome.entry->fileMode(), 0644);
}

TEST_F(WholeFileReadTest, GivesAnEntryWithoutDataForAFileThatCannotBeRead) {
  const auto file = platform.fileSystem().addFile("/logs/panic", "bytes");
  file->readError = EIO;
  const WorkOutcome outcome(wholeFileReadWork("/logs/panic"));
  EXPECT_TRUE(outcome.succeeded);
  ASSERT_NE(outcome.entry, nullptr);
  EXPECT_EQ(outcome.entry->fileData().has_value(), false);
  EXPECT_FALSE(outcome.error);
}

TEST_F(WholeFileReadTest, GivesAnEntryWithoutDataForAFileThatIsGone) {
  const WorkOutcome outcome(wholeFileReadWork("/logs/gone"));
  EXPECT_TRUE(outcome.succeeded);
  ASSERT_NE(outcome.entry, nullptr);
  EXPECT_FALSE(outcome.entry->fileData().has_value());
}

TEST_F(WholeFileReadTest, GivesEmptyDataForAnEmptyFile) {
  platform.fileSystem().addFile("/logs/empty", "");
  const WorkOutcome outcome(wholeFileReadWork("/logs/empty"));
  ASSERT_NE(outcome.entry, nullptr);
  ASSERT_TRUE(outcome.entry->fileData().has_value());
  EXPECT_EQ(outcome.entry->length(), 0U);
}

TEST_F(WholeFileReadTest, SucceedsWhenNobodyWantsTheEntry) {
  EXPECT_TRUE(wholeFileReadWork("/logs/gone")(nullptr, nullptr));
}

using PrebootReadmeTest = PlanFixture;

TEST_F(PrebootReadmeTest, SaysWhereTheInstructionsAre) {
  const WorkOutcome outcome(prebootReadmeWork("https://logs.example/preboot"));
  EXPECT_TRUE(outcome.succeeded);
  EXPECT_EQ(outcome.text(),
            "If there are any tar files in this directory, then they represent the Syslore Archive "
            "for the preboot volume in the filename.\n\nThe logarchive can be generated using the "
            "instructions here:\nhttps://logs.example/preboot\n");
}

TEST_F(PrebootReadmeTest, HasALinkOfTheDeployment) {
  EXPECT_STRNE(kPrebootLogsLink, "");
}

TEST_F(PrebootReadmeTest, SucceedsWhenNobodyWantsTheEntry) {
  EXPECT_TRUE(prebootReadmeWork("link")(nullptr, nullptr));
}

constexpr const char* kPaneTool =
    "/System/Library/PrivateFrameworks/Glasswork.framework/Resources/paneinfo";
constexpr const char* kPaneFile = "/private/tmp/PaneServer.external.pinfo.plist";

class PaneInformationTest : public PlanFixture {
 protected:
  // The tool does what `change` makes of a child that prints nothing and exits with 0.
  void scriptTool(const std::function<void(ScriptedChild&)>& change) {
    ScriptedChild child;
    change(child);
    platform.processLauncher().script(kPaneTool, child);
  }
};

TEST_F(PaneInformationTest, CapturesTheFileThatTheToolLeavesBehind) {
  scriptTool([](ScriptedChild& child) { child.output = "chatter"; });
  platform.processLauncher().onLaunch(
      [this](FakeChild&) { platform.fileSystem().addFile(kPaneFile, "panes"); });
  const WorkOutcome outcome(paneInformationWork(kPaneTool));
  EXPECT_TRUE(outcome.succeeded);
  EXPECT_EQ(outcome.text(), "panes");

  const auto requests = platform.processLauncher().requests();
  ASSERT_EQ(requests.size(), 1U);
  EXPECT_EQ(requests[0].executablePath, kPaneTool);
  EXPECT_THAT(requests[0].arguments, IsEmpty());
  EXPECT_FALSE(requests[0].captureOutput);
}

TEST_F(PaneInformationTest, RunsTheToolInTheClassOfTheJob) {
  const ScopedQOS scope(QOSClass::utility);
  const WorkOutcome outcome(paneInformationWork(kPaneTool));
  EXPECT_EQ(platform.processLauncher().requests().at(0).qos, QOSClass::utility);
}

TEST_F(PaneInformationTest, ReadsTheFileOnlyOnceTheToolHasExited) {
  platform.fileSystem().addFile(kPaneFile, "old");
  scriptTool([](ScriptedChild& child) { child.hangs = true; });
  const auto group = platform.workQueues().makeGroup();
  std::optional<WorkOutcome> outcome;
  platform.workQueues().global(QOSClass::utility).asyncInGroup(group, [&] {
    outcome.emplace(paneInformationWork(kPaneTool));
  });
  platform.processLauncher().waitForChildren(1);
  platform.fileSystem().addFile(kPaneFile, "new");
  platform.processLauncher().child(kPaneTool)->finish(0);
  group->wait();
  ASSERT_TRUE(outcome.has_value());
  EXPECT_EQ(outcome->text(), "new");
}

TEST_F(PaneInformationTest, DoesNotMindTheExitCode) {
  platform.fileSystem().addFile(kPaneFile, "panes");
  scriptTool([](ScriptedChild& child) { child.exitCode = 69; });
  EXPECT_TRUE(WorkOutcome(paneInformationWork(kPaneTool)).succeeded);
}

TEST_F(PaneInformationTest, FailsWithTheLaunchErrorWhenThereIsNoTool) {
  platform.fileSystem().addFile(kPaneFile, "left over");
  scriptTool([](ScriptedChild& child) { child.launchError = QSError::posix(ENOENT, kPaneTool); });
  const WorkOutcome outcome(paneInformationWork(kPaneTool));
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_EQ(outcome.entry, nullptr);
  EXPECT_EQ(outcome.error.code, ENOENT);
  EXPECT_EQ(outcome.error.filePath, kPaneTool);
}

TEST_F(PaneInformationTest, FailsWhenTheToolLeavesNothingBehind) {
  const WorkOutcome outcome(paneInformationWork(kPaneTool));
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_EQ(outcome.entry, nullptr);
  EXPECT_EQ(outcome.error.filePath, kPaneFile);
}

class PreOSLogTest : public PlanFixture {
 protected:
  // A log that has not wrapped.
  void setLog(const std::string& text) {
    platform.hostInformation().keepControl("kern.preoslog");
    std::string value = "POSL";
    for (const std::size_t number : {14 + text.size(), text.size() - 1})
      value += {static_cast<char>(number), '\0', '\0', '\0'};
    platform.hostInformation().setControl("kern.preoslog", value + '\0' + '\0' + text);
  }
};

TEST_F(PreOSLogTest, CapturesTheLog) {
  setLog("firmware says hello");
  const WorkOutcome outcome(preOSLogWork());
  EXPECT_TRUE(outcome.succeeded);
  EXPECT_EQ(outcome.text(), "firmware says hello");
  EXPECT_EQ(outcome.entry->fileMode(), 0644);
  EXPECT_FALSE(outcome.error);
}

TEST_F(PreOSLogTest, FailsWithNoSuchEntryOnAMachineWithoutSuchALog) {
  const WorkOutcome outcome(preOSLogWork());
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_EQ(outcome.entry, nullptr);
  EXPECT_EQ(outcome.error.domain, kPOSIXErrorDomain);
  EXPECT_EQ(outcome.error.code, ENOENT);
}

TEST_F(PreOSLogTest, FailsWithTheErrorOfTheQueryWhateverLoggingDoes) {
  platform.systemConsole().setErrnoAfterWrite(EBADF);
  platform.hostInformation().failControl("kern.preoslog", EPERM);
  EXPECT_EQ(WorkOutcome(preOSLogWork()).error.code, EPERM);
}

TEST_F(PreOSLogTest, FailsWithABadAddressForALogThatIsNone) {
  platform.hostInformation().setControl("kern.preoslog", std::string(64, 'x'));
  const WorkOutcome outcome(preOSLogWork());
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_EQ(outcome.entry, nullptr);
  EXPECT_EQ(outcome.error.code, EFAULT);
}

TEST_F(PreOSLogTest, SucceedsWhenNobodyWantsTheEntry) {
  setLog("text");
  EXPECT_TRUE(preOSLogWork()(nullptr, nullptr));
}

using ReportWorkTest = PlanFixture;

TEST_F(ReportWorkTest, CapturesAReport) {
  const WorkOutcome outcome(reportWork([](QSError*) { return QSData("<plist/>"); }));
  EXPECT_TRUE(outcome.succeeded);
  EXPECT_EQ(outcome.text(), "<plist/>");
}

TEST_F(ReportWorkTest, FailsWhenThereIsNothingToTell) {
  const WorkOutcome outcome(reportWork([](QSError*) { return std::nullopt; }));
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_EQ(outcome.entry, nullptr);
  EXPECT_FALSE(outcome.error);
}

TEST_F(ReportWorkTest, FailsWithTheErrorOfTheReport) {
  const WorkOutcome outcome(reportWork([](QSError* error) {
    setError(error, QSError::posix(EINVAL));
    return std::nullopt;
  }));
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_EQ(outcome.error.code, EINVAL);
}

TEST_F(ReportWorkTest, FailsWhenNobodyWantsTheEntry) {
  EXPECT_FALSE(reportWork([](QSError*) { return QSData("<plist/>"); })(nullptr, nullptr));
}

}  // namespace
}  // namespace quillsift
