#include <gtest/gtest.h>

#include "daemon/protocol/QSJobInfo.h"
#include "jobs/QSJob.h"
#include "tests/doubles/TestPlatform.h"

namespace quillsift {
namespace {

TEST(QSJobInfoOfJobTest, ShowsAJobBeforeAndAfterItsRun) {
  TestPlatform platform;
  QSJob job(
      [](std::shared_ptr<const QSJobEntry>* entry, QSError*) {
        *entry = std::make_shared<QSJobEntry>(QSData(std::string("12345")));
        return true;
      },
      "Logs/a.log");
  const QSJobInfo before(job);
  EXPECT_EQ(before.jobStatus(), 0);
  EXPECT_EQ(before.jobSize(), 0u);
  EXPECT_TRUE(before.sensitive());
  EXPECT_FALSE(before.dateFinished());
  EXPECT_FALSE(before.failureReason());

  job.setSensitive(false);
  job.beginSynchronousJob();
  const QSJobInfo after(job);
  EXPECT_EQ(after.jobStatus(), 4);
  EXPECT_EQ(after.jobSize(), 5u);
  EXPECT_FALSE(after.sensitive());
  EXPECT_TRUE(after.dateFinished());
  EXPECT_EQ(after.relativeFilePathAndName(), "Logs/a.log");
  EXPECT_EQ(after.uuid(), job.uuid());
  EXPECT_TRUE(before.isEqual(after));
  EXPECT_FALSE(before.jobItemsEqual(after));
}

TEST(QSJobInfoOfJobTest, AnEntryWithoutDataHasSizeZero) {
  TestPlatform platform;
  QSJob job(
      [](std::shared_ptr<const QSJobEntry>* entry, QSError*) {
        *entry = std::make_shared<QSJobEntry>(std::nullopt);
        return true;
      },
      "x");
  job.beginSynchronousJob();
  EXPECT_EQ(QSJobInfo(job).jobSize(), 0u);
}

}  // namespace
}  // namespace quillsift
