#include <gtest/gtest.h>

#include "platform/linux/JournalEntryText.h"

namespace quillsift {
namespace {

std::string field(std::string_view data) {
  std::string text = "before\n";
  appendJournalField(data, &text);
  EXPECT_TRUE(text.starts_with("before\n"));
  return text.substr(7);
}

TEST(JournalEntryTextTest, WritesPlainTextOnALine) {
  EXPECT_EQ(field("MESSAGE=hello"), "MESSAGE=hello\n");
  EXPECT_EQ(field("MESSAGE="), "MESSAGE=\n");
  EXPECT_EQ(field("MESSAGE=a=b=c"), "MESSAGE=a=b=c\n");
  EXPECT_EQ(field("MESSAGE=one\ttwo"), "MESSAGE=one\ttwo\n");
  EXPECT_EQ(field("MESSAGE=gr\xC3\xBC\xC3\x9F \xF0\x9F\x93\x9D"),
            "MESSAGE=gr\xC3\xBC\xC3\x9F \xF0\x9F\x93\x9D\n");
}

TEST(JournalEntryTextTest, WritesAnythingElseWithItsLength) {
  EXPECT_EQ(field("MESSAGE=two\nlines"),
            "MESSAGE\n" + std::string("\x09\0\0\0\0\0\0\0", 8) + "two\nlines\n");
  EXPECT_EQ(field(std::string_view("CODE=\0", 6)),
            "CODE\n" + std::string("\x01\0\0\0\0\0\0\0\0\n", 10));
  const std::string longValue = std::string(0x012345, 'x') + '\n';
  EXPECT_EQ(field("CODE=" + longValue),
            "CODE\n" + std::string("\x46\x23\x01\0\0\0\0\0", 8) + longValue + "\n");
}

TEST(JournalEntryTextTest, LeavesOutWhatIsNoField) {
  EXPECT_EQ(field("no equals sign"), "");
  EXPECT_EQ(field(""), "");
}

}  // namespace
}  // namespace quillsift
