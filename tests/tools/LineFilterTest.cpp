#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/LineFilter.h"

namespace quillsift::tools {
namespace {

using testing::ElementsAre;

std::vector<std::string> filtered(LineFilter filter, std::initializer_list<std::string> pieces) {
  std::vector<std::string> lines;
  LineSplitter splitter(std::move(filter),
                        [&](std::string_view line) { lines.emplace_back(line); });
  for (const std::string& piece : pieces)
    splitter.feed(piece);
  splitter.finish();
  return lines;
}

bool keepAll(std::string&) {
  return true;
}

TEST(LineSplitterTest, JoinsPiecesIntoLines) {
  EXPECT_THAT(filtered(keepAll, {"on", "e\ntwo\n", "\nlast"}),
              ElementsAre("one", "two", "", "last"));
}

TEST(LineSplitterTest, HasNoLineBehindAFinalNewline) {
  EXPECT_THAT(filtered(keepAll, {"one\n"}), ElementsAre("one"));
  EXPECT_THAT(filtered(keepAll, {""}), ElementsAre());
}

TEST(LineSplitterTest, CutsALineWithoutEnd) {
  const std::string piece(LineSplitter::kLongestLine - 1, 'x');
  const auto lines = filtered(keepAll, {piece, "abc"});
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].size(), LineSplitter::kLongestLine);
  EXPECT_EQ(lines[1], "bc");
}

TEST(LineSplitterTest, PrintsWhatTheFilterLeavesOfALine) {
  const auto shorten = [](std::string& line) {
    line.resize(1);
    return line != "d";
  };
  EXPECT_THAT(filtered(shorten, {"abc\ndef\nghi\n"}), ElementsAre("a", "g"));
}

TEST(DropLinesTest, KnowsWordsInAnyCase) {
  const auto drop = dropLinesWith({"serial number", "eui"});
  EXPECT_THAT(filtered(drop, {"Serial Number: CANARY\nNamespace 1 IEEE EUI-64: CANARY\n"}),
              ElementsAre());
}

TEST(DropLinesTest, LeavesWordsThatOnlyContainThem) {
  const auto drop = dropLinesWith({"eui"});
  EXPECT_THAT(filtered(drop, {"queuing\neuio\n"}), ElementsAre("queuing", "euio"));
}

TEST(BothFiltersTest, DropsWhatEitherDropsAndKeepsBothChanges) {
  const auto filter = both(dropLinesWith({"gone"}), maskSecrets());
  EXPECT_THAT(filtered(filter, {"gone\npass=CANARY\n"}), ElementsAre("pass=(masked)"));
}

}  // namespace
}  // namespace quillsift::tools
