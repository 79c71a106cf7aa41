#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <string>

#include "platform/linux/VolumeFacts.h"

namespace quillsift {
namespace {

constexpr const char* kBootLoaderPartition = "bc13c2ff-59e6-4262-a352-b275fd6f7172";
constexpr const char* kEFISystemPartition = "c12a7328-f81f-11d2-ba4b-00a0c93ec93b";

TEST(VolumeFactsTest, NamesTheFileSystemBeforeThePartition) {
  EXPECT_EQ(VolumeFacts{}.uuid(), "");
  EXPECT_EQ((VolumeFacts{.partitionUUID = "p"}.uuid()), "p");
  EXPECT_EQ((VolumeFacts{.fileSystemUUID = "f", .partitionUUID = "p"}.uuid()), "f");
}

TEST(VolumeFactsTest, GivesARoleByPartitionType) {
  EXPECT_EQ(volumeRole({.partitionType = kBootLoaderPartition}), 16);
  EXPECT_EQ(volumeRole({.partitionType = kEFISystemPartition}), 320);
  EXPECT_EQ(volumeRole({.partitionType = "0xea"}), 16);
  EXPECT_EQ(volumeRole({.partitionType = "0xef"}), 320);
  EXPECT_EQ(volumeRole({.partitionType = "0x83"}), std::nullopt);
}

TEST(VolumeFactsTest, GivesARoleByExactLabel) {
  EXPECT_EQ(volumeRole({.label = "QS-PREBOOT"}), 16);
  EXPECT_EQ(volumeRole({.label = "QS-UPDATE"}), 192);
  EXPECT_EQ(volumeRole({.label = "QS-HARDWARE"}), 320);
  EXPECT_EQ(volumeRole({.label = "qs-update"}), std::nullopt);
  EXPECT_EQ(volumeRole({.label = "QS-UPDATE2"}), std::nullopt);
  EXPECT_EQ(volumeRole({}), std::nullopt);
}

TEST(VolumeFactsTest, LetsALabelOutweighThePartitionAndARuleBoth) {
  VolumeFacts facts{.label = "QS-UPDATE", .partitionType = kEFISystemPartition};
  EXPECT_EQ(volumeRole(facts), 192);
  facts.role = "16";
  EXPECT_EQ(volumeRole(facts), 16);
  facts.role = "0";
  EXPECT_EQ(volumeRole(facts), 0);
  facts.role = "-1";
  EXPECT_EQ(volumeRole(facts), -1);
}

TEST(VolumeFactsTest, IgnoresARulesRoleThatIsNoNumberOfSixteenBits) {
  for (const char* role : {"", "x", "16x", " 16", "32768", "-32769", "99999999999999999999"}) {
    EXPECT_EQ(volumeRole({.label = "QS-UPDATE", .role = role}), 192) << role;
  }
}

// The rules are for udev what volumeRole is for us: whoever changes one has to change the other.
TEST(VolumeFactsTest, AgreesWithTheUdevRules) {
  std::ifstream rules(UDEV_RULES);
  ASSERT_TRUE(rules) << UDEV_RULES;
  const std::regex assignment(
      R"re(ENV\{(ID_FS_LABEL|ID_PART_ENTRY_TYPE)\}=="([^"]+)", ENV\{QS_VOLUME_ROLE\}="(\d+)")re");
  std::map<std::string, int> seen;
  bool labelsBegan = false;
  for (std::string line; std::getline(rules, line);) {
    std::smatch parts;
    if (!std::regex_match(line, parts, assignment)) continue;
    const bool isLabel = parts[1] == "ID_FS_LABEL";
    // The last match wins there.
    EXPECT_TRUE(isLabel || !labelsBegan) << line;
    labelsBegan = labelsBegan || isLabel;
    const VolumeFacts facts =
        isLabel ? VolumeFacts{.label = parts[2]} : VolumeFacts{.partitionType = parts[2]};
    EXPECT_EQ(volumeRole(facts), std::stoi(parts[3])) << line;
    seen[parts[2]] = std::stoi(parts[3]);
  }
  EXPECT_EQ(seen.size(), 7u);
}

}  // namespace
}  // namespace quillsift
