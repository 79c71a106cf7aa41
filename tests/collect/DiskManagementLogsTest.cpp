#include <gmock/gmock.h>

#include <cerrno>

#include "collect/DiskManagementLogs.h"
#include "tests/collect/PlanFixture.h"

namespace quillsift {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kDirectory = "/private/var/log/stw/";

class DiskManagementLogsTest : public PlanFixture {
 protected:
  void add(const std::string& name, std::string content) {
    platform.fileSystem().addFile(kDirectory + name, std::move(content));
  }
  WorkOutcome collect() const { return WorkOutcome(diskManagementLogWork(kDirectory)); }
  static LogLine nothingThere() {
    return infoLine("There are no STW log files in the STW RAMDisk to copy back to the target.");
  }
};

TEST_F(DiskManagementLogsTest, JoinsTheLargestNumberFirst) {
  add("stw.log.2", "newer\n");
  add("stw.log.10", "older\n");
  const WorkOutcome outcome = collect();
  EXPECT_TRUE(outcome.succeeded);
  EXPECT_EQ(outcome.text(), "older\nnewer\n");
  EXPECT_THAT(platform.systemLog().lines(), IsEmpty());
}

TEST_F(DiskManagementLogsTest, GivesTheDefaultOwnerAndMode) {
  add("stw.1", "text");
  const WorkOutcome outcome = collect();
  ASSERT_NE(outcome.entry, nullptr);
  EXPECT_EQ(outcome.entry->fileMode(), 0644);
  EXPECT_EQ(outcome.entry->fileUID(), 0U);
}

TEST_F(DiskManagementLogsTest, LeavesTheCurrentLogWhereItIs) {
  add("stw.log", "current");
  const WorkOutcome outcome = collect();
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_EQ(outcome.entry, nullptr);
  EXPECT_FALSE(outcome.error);
  EXPECT_THAT(platform.systemLog().lines(), ElementsAre(nothingThere()));
}

TEST_F(DiskManagementLogsTest, TellsWhenThereIsNoDirectory) {
  EXPECT_FALSE(collect().succeeded);
  EXPECT_THAT(platform.systemLog().lines(), ElementsAre(nothingThere()));
}

TEST_F(DiskManagementLogsTest, SkipsHiddenFilesAndDirectories) {
  add(".hidden.3", "hidden");
  platform.fileSystem().addDirectory(std::string(kDirectory) + "directory.4");
  add("directory.4/inside.5", "inside");
  add("stw.1", "kept");
  EXPECT_EQ(collect().text(), "kept");
}

TEST_F(DiskManagementLogsTest, SkipsALinkToADirectory) {
  platform.fileSystem().addDirectory("/elsewhere");
  platform.fileSystem().addLink(std::string(kDirectory) + "link.9", "/elsewhere");
  add("stw.1", "kept");
  const WorkOutcome outcome = collect();
  EXPECT_TRUE(outcome.succeeded);
  EXPECT_EQ(outcome.text(), "kept");
}

TEST_F(DiskManagementLogsTest, TakesTheNumberAnExtensionBeginsWith) {
  add("a.3x", "3");
  add("b. +2", "2");
  add("c.-1", "-1");
  add("d.x9", "not numbered");
  add("e.-", "not numbered");
  add("f.", "not numbered");
  add("g", "not numbered");
  EXPECT_EQ(collect().text(), "32-1");
}

TEST_F(DiskManagementLogsTest, StopsAtTheLimitsOfANumber) {
  add("a.1", "small");
  add("b.99999999999999999999", "huge ");
  add("c.-99999999999999999999", " tiny");
  add("d.9223372036854775806", "less than huge ");
  EXPECT_EQ(collect().text(), "huge less than huge small tiny");
}

TEST_F(DiskManagementLogsTest, KeepsTheOrderOfEqualNumbers) {
  add("a.07", "first ");
  add("b.7", "second ");
  add("c.7", "third");
  EXPECT_EQ(collect().text(), "first second third");
}

TEST_F(DiskManagementLogsTest, DiscardsEverythingWhenOneLogCannotBeRead) {
  add("stw.2", "good");
  add("stw.1", "bad");
  platform.fileSystem().failOpen(std::string(kDirectory) + "stw.1", EACCES);
  const WorkOutcome outcome = collect();
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_EQ(outcome.entry, nullptr);
  EXPECT_EQ(outcome.error.code, EACCES);
  EXPECT_THAT(platform.systemLog().lines(),
              ElementsAre(warningLine(
                  "Failed to read /private/var/log/stw/stw.1 into an internal DataBlob. POSIX 13: "
                  "Permission denied (path: /private/var/log/stw/stw.1)")));
}

TEST_F(DiskManagementLogsTest, DiscardsEverythingWhenALogVanishesOnceItIsListed) {
  add("stw.2", "good");
  add("stw.1", "gone");
  platform.fileSystem().failOpen(std::string(kDirectory) + "stw.1", ENOENT);
  const WorkOutcome outcome = collect();
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_EQ(outcome.entry, nullptr);
  EXPECT_EQ(outcome.error.code, ENOENT);
  EXPECT_THAT(
      platform.systemLog().lines(),
      ElementsAre(warningLine(
          "Failed to read /private/var/log/stw/stw.1 into an internal DataBlob. POSIX 2: No "
          "such file or directory (path: /private/var/log/stw/stw.1)")));
}

TEST_F(DiskManagementLogsTest, ReadsEachExtensionForItself) {
  // The name is not the extension, and only what stands behind the last dot counts.
  add("10.log", "not numbered");
  add("stw.9.log", "not numbered");
  add("stw.log.2x", "2 ");
  add("stw.log.99999999999999999999", "huge ");
  add("stw.log.-3", "-3");
  add("stw.log.0x10", "0 ");
  add("stw.log.1e3", "1 ");
  add("stw.log.--5", "not numbered");
  EXPECT_EQ(collect().text(), "huge 2 1 0 -3");
}

TEST_F(DiskManagementLogsTest, ReadsPastAnEmptyLog) {
  add("stw.2", "");
  add("stw.1", "text");
  EXPECT_EQ(collect().text(), "text");
}

TEST_F(DiskManagementLogsTest, FailsWhenAllLogsAreEmpty) {
  add("stw.1", "");
  const WorkOutcome outcome = collect();
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_EQ(outcome.entry, nullptr);
  EXPECT_THAT(platform.systemLog().lines(), IsEmpty());
}

TEST_F(DiskManagementLogsTest, FailsWithoutAPlaceForTheEntry) {
  add("stw.1", "text");
  EXPECT_FALSE(diskManagementLogWork(kDirectory)(nullptr, nullptr));
}

}  // namespace
}  // namespace quillsift
