#include <grp.h>
#include <gtest/gtest.h>

#include <string>

#include "jobs/GroupDatabase.h"

namespace quillsift {
namespace {

TEST(GroupDatabaseTest, FindsEveryGroupOfTheHost) {
  ::setgrent();
  std::size_t groups = 0;
  for (const group* record = ::getgrent(); record != nullptr; record = ::getgrent()) {
    const std::string name = record->gr_name;
    const gid_t identifier = record->gr_gid;
    EXPECT_EQ(groupIdentifier(name), identifier) << name;
    ++groups;
  }
  ::endgrent();
  EXPECT_GT(groups, 0U);
}

TEST(GroupDatabaseTest, GivesNoneForAnUnknownGroup) {
  EXPECT_EQ(groupIdentifier("no group has this name"), std::nullopt);
  EXPECT_EQ(groupIdentifier(""), std::nullopt);
}

}  // namespace
}  // namespace quillsift
