#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>

#include "jobs/GroupDatabase.h"
#include "jobs/QSFileAttributes.h"
#include "jobs/QSJobEntry.h"
#include "tests/doubles/TestPlatform.h"

namespace quillsift {
namespace {

TEST(QSJobEntryTest, DataAloneGetsTheUsualAttributes) {
  const QSJobEntry entry(QSData(std::string("output")));
  EXPECT_EQ(entry.fileData()->text(), "output");
  EXPECT_EQ(entry.length(), 6U);
  EXPECT_EQ(entry.fileMode(), 0644);
  EXPECT_EQ(entry.fileUID(), 0U);
  EXPECT_EQ(entry.fileGID(), groupIdentifier("everyone").value_or(0));
  EXPECT_TRUE(entry.extendedAttributes().empty());
}

TEST(QSJobEntryTest, NoDataAndEmptyDataAreDifferentButEquallyLong) {
  const QSJobEntry none(std::nullopt);
  const QSJobEntry empty((QSData()));
  EXPECT_FALSE(none.fileData().has_value());
  EXPECT_TRUE(empty.fileData().has_value());
  EXPECT_EQ(none.length(), 0U);
  EXPECT_EQ(empty.length(), 0U);
}

TEST(QSJobEntryTest, SharesItsBytesWithWhoeverMadeThem) {
  const QSData data(std::string(1000, 'x'));
  const QSJobEntry entry(data);
  EXPECT_EQ(entry.fileData()->bytes().data(), data.bytes().data());
}

class QSJobEntryFromFileTest : public testing::Test {
 protected:
  QSJobEntry entryFor(const MemoryFile& file) {
    platform_.fileSystem().addDescriptor(3, std::make_shared<MemoryFile>(file));
    const auto attributes = QSFileAttributes::fileAttributesForHandle(
        platform_.fileSystem().adopt(3, false), 0, nullptr);
    return QSJobEntry(QSData(std::string("copy")), *attributes);
  }

  TestPlatform platform_;
};

TEST_F(QSJobEntryFromFileTest, TakesOwnerGroupModeAndExtendedAttributes) {
  MemoryFile file;
  file.metadata.ownerID = 501;
  file.metadata.groupID = 20;
  file.metadata.accessMask = 0104755;
  file.extendedAttributes = {{"user.origin", QSData(std::string("\0\1", 2))}};
  const QSJobEntry entry = entryFor(file);
  EXPECT_EQ(entry.fileUID(), 501U);
  EXPECT_EQ(entry.fileGID(), 20U);
  EXPECT_EQ(entry.fileMode(), 04755);
  ASSERT_EQ(entry.extendedAttributes().size(), 1U);
  EXPECT_EQ(entry.extendedAttributes().at("user.origin").text(), std::string("\0\1", 2));
  EXPECT_EQ(entry.fileData()->text(), "copy");
}

TEST_F(QSJobEntryFromFileTest, KeepsOnlyTheLowSixteenBitsOfTheAccessMask) {
  MemoryFile file;
  file.metadata.accessMask = 0xABCD8000U | 0640U;
  EXPECT_EQ(entryFor(file).fileMode(), 0640);
  file.metadata.accessMask = 0x10000U | 07777U;
  EXPECT_EQ(entryFor(file).fileMode(), 07777);
}

}  // namespace
}  // namespace quillsift
