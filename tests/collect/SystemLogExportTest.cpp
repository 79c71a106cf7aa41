#include <gmock/gmock.h>

#include <cerrno>

#include "collect/CollectionPlan.h"
#include "collect/SystemLogExport.h"
#include "tests/collect/PlanFixture.h"

namespace quillsift {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kDescriptor = 70;

class SystemLogExportTest : public PlanFixture {
 protected:
  // A member of the archive behind kDescriptor.
  std::shared_ptr<MemoryFile> add(const std::string& path, std::string content) {
    auto file = platform.fileSystem().addFile("/archive/member", std::move(content));
    add(path, file);
    return file;
  }
  void add(const std::string& path, const std::shared_ptr<MemoryFile>& file) {
    platform.fileSystem().addDescriptor(kDescriptor, file);
    platform.logArchiveBuilder().members.push_back({kDescriptor, path});
  }
  void collect() {
    session_ = session();
    exportSystemLog(session_, row_);
  }
  std::vector<int> results() { return platform.logArchiveBuilder().memberResults; }

  static LogLine failed() {
    return warningLine("Failed to gather Syslore archive, LogArchiveBuild returned an error.");
  }

  const PlanRow row_{Producer{exportSystemLog}, "Logs/Recovery.logarchive/", Sensitive::yes,
                     QOSClass::utility};
  CollectionSession session_;
};

TEST_F(SystemLogExportTest, AsksForTheNewestOfFourKinds) {
  collect();
  ASSERT_EQ(platform.logArchiveBuilder().limitsAsked.size(), 1U);
  const auto& limits = platform.logArchiveBuilder().limitsAsked[0];
  std::vector<std::string> kinds;
  for (const auto& [kind, limit] : limits) {
    kinds.push_back(kind);
    EXPECT_EQ(limit.size, 10485760) << kind;
    EXPECT_EQ(limit.age, 36000) << kind;
  }
  EXPECT_THAT(kinds, ElementsAre("highvolume", "persist", "signpost", "special"));
  EXPECT_THAT(platform.systemLog().lines(), IsEmpty());
}

TEST_F(SystemLogExportTest, QueuesOneJobForEachMember) {
  add("Persist/0001.tracev3", "entries");
  collect();
  EXPECT_THAT(relativePaths(), ElementsAre("Logs/Recovery.logarchive/Persist/0001.tracev3"));
  const Job job = host->jobs().at(0);
  EXPECT_EQ(job.kind, Kind::work);
  EXPECT_TRUE(job.sensitive);
  EXPECT_EQ(job.qos, QOSClass::utility);
  EXPECT_EQ(job.group, session_.group);
  EXPECT_EQ(job.uuid, sessionUUID.text());
  EXPECT_THAT(results(), ElementsAre(0));
  EXPECT_EQ(WorkOutcome(job.work).text(), "entries");
}

TEST_F(SystemLogExportTest, GivesTheMembersOwnerModeAndAttributes) {
  const auto file = add("Info.plist", "text");
  file->metadata.ownerID = 12;
  file->metadata.groupID = 34;
  file->metadata.accessMask = 0100640;
  file->extendedAttributes["user.kind"] = QSData("log");
  collect();
  const WorkOutcome outcome(host->jobs().at(0).work);
  ASSERT_NE(outcome.entry, nullptr);
  EXPECT_EQ(outcome.entry->fileUID(), 12U);
  EXPECT_EQ(outcome.entry->fileGID(), 34U);
  EXPECT_EQ(outcome.entry->fileMode(), 0640);
  ASSERT_EQ(outcome.entry->extendedAttributes().count("user.kind"), 1U);
}

TEST_F(SystemLogExportTest, HasReadTheMemberBeforeTheBuilderGetsItsDescriptorBack) {
  const auto file = add("Info.plist", "as it was");
  file->mountFlags = 0;  // not a file that is mapped
  collect();
  EXPECT_EQ(platform.fileSystem().openHandles(), 0U);
  file->write("changed");
  EXPECT_EQ(WorkOutcome(host->jobs().at(0).work).text(), "as it was");
}

TEST_F(SystemLogExportTest, LeavesTheDescriptorToTheBuilder) {
  add("Info.plist", "text");
  collect();
  EXPECT_THAT(platform.fileSystem().operations(),
              testing::Contains(MemoryFileSystem::Operation{"adopt", "descriptor 70", 0}));
}

TEST_F(SystemLogExportTest, HandsOutAnEntryOnlyToThoseWhoWantIt) {
  add("Info.plist", "text");
  collect();
  EXPECT_TRUE(host->jobs().at(0).work(nullptr, nullptr));
}

TEST_F(SystemLogExportTest, SkipsTheArchiveItselfAndDirectories) {
  add(".", "not a directory, and yet the archive itself");
  add("Persist", platform.fileSystem().addDirectory("/archive/Persist"));
  collect();
  EXPECT_THAT(host->jobs(), IsEmpty());
  EXPECT_THAT(results(), ElementsAre(0, 0));
  EXPECT_THAT(platform.systemLog().lines(), IsEmpty());
}

TEST_F(SystemLogExportTest, JoinsTheMembersPathByOneSlash) {
  add("/Info.plist", "text");
  collect();
  EXPECT_THAT(relativePaths(), ElementsAre("Logs/Recovery.logarchive/Info.plist"));
}

TEST_F(SystemLogExportTest, NamesAreTextWhateverTheBytes) {
  add("odd\xFFname", "text");
  collect();
  EXPECT_THAT(relativePaths(), ElementsAre("Logs/Recovery.logarchive/odd\xEF\xBF\xBDname"));
}

TEST_F(SystemLogExportTest, EndsWithTheErrorOfADescriptorThatIsNone) {
  platform.logArchiveBuilder().members.push_back({99, "Info.plist"});
  collect();
  EXPECT_THAT(host->jobs(), IsEmpty());
  EXPECT_THAT(results(), ElementsAre(EBADF));
  EXPECT_THAT(platform.systemLog().lines(),
              ElementsAre(errorLine("Failed to fstat file descriptor from LogArchiveBuild: Bad "
                                    "file descriptor"),
                          failed()));
}

TEST_F(SystemLogExportTest, EndsWithTheErrorOfAMemberWithoutMetadata) {
  add("Info.plist", "text")->metadataError = EIO;
  collect();
  EXPECT_THAT(results(), ElementsAre(EIO));
  EXPECT_THAT(platform.systemLog().lines(),
              ElementsAre(errorLine("Failed to fstat file descriptor from LogArchiveBuild: "
                                    "Input/output error"),
                          failed()));
}

TEST_F(SystemLogExportTest, EndsWhenAMembersAttributesCannotBeHad) {
  add("Info.plist", "text")->mountFlagsError = EIO;
  collect();
  EXPECT_THAT(host->jobs(), IsEmpty());
  EXPECT_THAT(results(), ElementsAre(EINVAL));
  EXPECT_THAT(platform.systemLog().lines(),
              ElementsAre(errorLine("Failed to construct QSFileAttributes for (Info.plist) from "
                                    "LogArchiveBuild file descriptor. POSIX 5: Input/output "
                                    "error"),
                          failed()));
}

TEST_F(SystemLogExportTest, EndsWhenAMemberCannotBeRead) {
  const auto file = add("Info.plist", "text");
  file->mountFlags = 0;
  file->readError = EIO;
  collect();
  EXPECT_THAT(host->jobs(), IsEmpty());
  EXPECT_THAT(results(), ElementsAre(EINVAL));
  EXPECT_THAT(platform.systemLog().lines(),
              ElementsAre(errorLine("Failed to read (Info.plist) from LogArchiveBuild file "
                                    "descriptor. POSIX 61: No data available"),
                          failed()));
}

TEST_F(SystemLogExportTest, PassesWarningsOn) {
  platform.logArchiveBuilder().warnings = {"a file is 100% damaged"};
  collect();
  EXPECT_THAT(platform.systemLog().lines(),
              ElementsAre(warningLine("Warning from LogArchiveBuild: a file is 100% damaged")));
}

TEST_F(SystemLogExportTest, KeepsWhatWasHandedOverBeforeTheBuilderFailed) {
  add("Info.plist", "text");
  platform.logArchiveBuilder().error = ENOSYS;
  collect();
  EXPECT_EQ(host->jobs().size(), 1U);
  EXPECT_THAT(platform.systemLog().lines(), ElementsAre(failed()));
}

}  // namespace
}  // namespace quillsift
