// The page that lists the members of an archive, held against the plan.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <set>

#include "collect/PlanListing.h"

namespace quillsift {
namespace {

struct ListedMember {
  std::string name;
  bool sensitive;
};

std::vector<std::string> cellsOf(const std::string& row) {
  std::vector<std::string> cells;
  std::size_t begin = 1;
  for (std::size_t end = row.find('|', begin); end != std::string::npos;
       begin = end + 1, end = row.find('|', begin)) {
    const std::string cell = row.substr(begin, end - begin);
    const std::size_t first = cell.find_first_not_of(' ');
    cells.push_back(first == std::string::npos
                        ? ""
                        : cell.substr(first, cell.find_last_not_of(' ') - first + 1));
  }
  return cells;
}

// The members of the page's tables; a row may name more than one.
std::vector<ListedMember> listedMembers() {
  std::vector<ListedMember> members;
  std::ifstream page(QUILLSIFT_ARCHIVE_PAGE);
  for (std::string line; std::getline(page, line);) {
    if (!line.starts_with("| `")) continue;
    const auto cells = cellsOf(line);
    EXPECT_EQ(cells.size(), 4U) << line;
    if (cells.size() != 4) continue;
    EXPECT_TRUE(cells[3] == "yes" || cells[3] == "no") << line;
    EXPECT_NE(cells[1], "") << line;
    EXPECT_NE(cells[2], "") << line;
    std::size_t begin = cells[0].find('`');
    while (begin != std::string::npos) {
      const std::size_t end = cells[0].find('`', begin + 1);
      members.push_back({cells[0].substr(begin + 1, end - begin - 1), cells[3] == "yes"});
      begin = cells[0].find('`', end + 1);
    }
  }
  return members;
}

// What is in front of the part that differs from machine to machine.
std::string fixedPart(const std::string& member) {
  return member.substr(0, member.find("<name>"));
}

bool isListedAs(const PlanFact& fact, const ListedMember& member) {
  const std::string fixed = fixedPart(fact.member);
  const bool hasName = fixed != fact.member;
  return fact.sensitive == member.sensitive &&
         (hasName ? member.name.starts_with(fixed) : member.name == fixed);
}

TEST(ArchivePageTest, ListsEveryResultOfThePlanWithItsSensitivity) {
  const auto members = listedMembers();
  const auto facts = planFacts();
  EXPECT_GE(facts.size(), 60U);
  for (const PlanFact& fact : facts) {
    EXPECT_TRUE(std::any_of(members.begin(), members.end(),
                            [&](const ListedMember& member) { return isListedAs(fact, member); }))
        << fact.member << (fact.sensitive ? ", sensitive" : "");
  }
}

TEST(ArchivePageTest, ListsNothingThatThePlanDoesNotCollect) {
  const auto facts = planFacts();
  std::set<std::string> names;
  for (const ListedMember& member : listedMembers()) {
    EXPECT_TRUE(std::any_of(facts.begin(), facts.end(), [&](const PlanFact& fact) {
      return isListedAs(fact, member);
    })) << member.name;
    EXPECT_TRUE(names.insert(member.name).second) << member.name << " is listed twice";
  }
}

TEST(PlanListingTest, HasALineForEachSourceWithItsFields) {
  const std::string listing = planListing();
  EXPECT_NE(listing.find("command\tplatterctl_info.txt\tpublic\talways\t/usr/sbin/platterctl\tinfo"
                         "\t-all\n"),
            std::string::npos);
  EXPECT_NE(listing.find("directory\tstashlogd/<name>\tsensitive\talways\t"
                         "/System/Volumes/Hardware/stashlogd/\n"),
            std::string::npos);
  EXPECT_NE(listing.find("own\tLogs/pre_os.log\tpublic\talways\t\n"), std::string::npos);
  EXPECT_NE(listing.find("command\tnvram.plist\tsensitive\tinternal\t/usr/sbin/nvram\t-x\t-p\n"),
            std::string::npos);
  EXPECT_NE(listing.find("command\tVolume Contents/Update/<UUID>.log\tpublic\talways\t"
                         "/usr/bin/find\n"),
            std::string::npos);
  EXPECT_EQ(std::count(listing.begin(), listing.end(), '\n'),
            static_cast<std::ptrdiff_t>(planFacts().size()));
}

}  // namespace
}  // namespace quillsift
