#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <string_view>

#include "platform/QSDate.h"
#include "platform/QSError.h"
#include "platform/Text.h"

namespace quillsift {
namespace {

const std::string kReplacement = "\xEF\xBF\xBD";

TEST(TextTest, PrintsWhatIsAbsentAsNull) {
  EXPECT_EQ(orNull(std::optional<std::string>()), "(null)");
  EXPECT_EQ(orNull(std::optional<std::string>("")), "");
  EXPECT_EQ(orNull(std::optional<std::string>("text")), "text");
  EXPECT_EQ(orNull(QSError()), "(null)");
  EXPECT_EQ(orNull(QSError::posix(5)), "POSIX 5: Input/output error");
  EXPECT_EQ(orNull(std::optional<QSDate>()), "(null)");
  EXPECT_EQ(orNull(std::optional(QSDate{0})), "1970-01-01 00:00:00 +0000");
}

TEST(TextTest, FormatsTextsOfAnyLength) {
  EXPECT_EQ(formatted("%s-%d", "a", 7), "a-7");
  EXPECT_EQ(formatted("%s", ""), "");
  const std::string text(100000, 'x');
  EXPECT_EQ(formatted("<%s>", text.c_str()), "<" + text + ">");
}

TEST(TextTest, LeavesValidUTF8Alone) {
  const char* const texts[] = {
      "",
      "plain",
      "\x7F",
      "\xC2\x80",
      "\xDF\xBF",
      "\xE0\xA0\x80",
      "\xED\x9F\xBF",
      "\xEE\x80\x80",
      "\xEF\xBF\xBF",
      "\xF0\x90\x80\x80",
      "\xF4\x8F\xBF\xBF",
      "a\xC3\xA4z",
  };
  for (const char* text : texts)
    EXPECT_EQ(validUTF8(text), text);
  EXPECT_EQ(validUTF8(std::string_view("a\0b", 3)), std::string("a\0b", 3));
}

TEST(TextTest, CutsTheTextOfAFileNameBetweenCharacters) {
  EXPECT_EQ(fileNameText("a\xFF"), "a\xEF\xBF\xBD");
  EXPECT_EQ(fileNameText(std::string(255, 'n')), std::string(255, 'n'));
  EXPECT_EQ(fileNameText(std::string(300, '\xFF')).size(), 255U);  // 85 replacements
  const std::string cut = fileNameText("n" + std::string(254, '\xFF'));
  EXPECT_EQ(cut.size(), 253U);
  EXPECT_EQ(validUTF8(cut), cut);
}

TEST(TextTest, ReplacesEveryByteThatIsNotUTF8) {
  const struct {
    const char* what;
    std::string text;
    std::string valid;
  } cases[] = {
      {"a continuation alone", "a\x80z", "a" + kReplacement + "z"},
      {"a lead alone", "\xC3", kReplacement},
      {"a lead before text", "\xC3(", kReplacement + "("},
      {"an overlong slash", "\xC0\xAF", kReplacement + kReplacement},
      {"an overlong form of three bytes", "\xE0\x9F\xBF",
       kReplacement + kReplacement + kReplacement},
      {"an overlong form of four bytes", "\xF0\x8F\xBF\xBF",
       kReplacement + kReplacement + kReplacement + kReplacement},
      {"a surrogate", "\xED\xA0\x80", kReplacement + kReplacement + kReplacement},
      {"past the last character", "\xF4\x90\x80\x80",
       kReplacement + kReplacement + kReplacement + kReplacement},
      {"a lead that never is", "\xF5\x80\x80\x80",
       kReplacement + kReplacement + kReplacement + kReplacement},
      {"a cut sequence", "\xE2\x82", kReplacement + kReplacement},
      {"a cut sequence before text", "\xE2\x82z", kReplacement + kReplacement + "z"},
      {"a valid one behind an invalid one", "\xFF\xC3\xA4", kReplacement + "\xC3\xA4"},
  };
  for (const auto& each : cases)
    EXPECT_EQ(validUTF8(each.text), each.valid) << each.what;
}

// Decodes strictly, another way than the code under test: by the number it stands for.
bool isUTF8(std::string_view text) {
  while (!text.empty()) {
    const auto lead = static_cast<std::uint8_t>(text[0]);
    const std::size_t length = lead < 0x80             ? 1
                               : (lead & 0xE0) == 0xC0 ? 2
                               : (lead & 0xF0) == 0xE0 ? 3
                               : (lead & 0xF8) == 0xF0 ? 4
                                                       : 0;
    if (length == 0 || text.size() < length) return false;
    std::uint32_t number = length == 1 ? lead : lead & (0xFFU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
      const auto byte = static_cast<std::uint8_t>(text[i]);
      if ((byte & 0xC0) != 0x80) return false;
      number = number << 6 | (byte & 0x3FU);
    }
    static constexpr std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (number < kSmallest[length] || number > 0x10FFFF) return false;
    if (number >= 0xD800 && number <= 0xDFFF) return false;
    text.remove_prefix(length);
  }
  return true;
}

TEST(TextTest, AnyBytesBecomeUTF8AndUTF8StaysAsItIs) {
  std::mt19937 random(1);
  // Bytes at the borders of the ranges, where mistakes would be.
  static constexpr std::uint8_t kBytes[] = {0x00, 0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0,
                                            0xBF, 0xC0, 0xC1, 0xC2, 0xDF, 0xE0, 0xE1, 0xEC,
                                            0xED, 0xEE, 0xEF, 0xF0, 0xF1, 0xF3, 0xF4, 0xF5};
  std::size_t valid = 0;
  for (int i = 0; i < 200000; ++i) {
    std::string text(1 + random() % 5, '\0');
    for (char& byte : text)
      byte = static_cast<char>(kBytes[random() % std::size(kBytes)]);
    const std::string result = validUTF8(text);
    ASSERT_TRUE(isUTF8(result));
    ASSERT_EQ(result == text, isUTF8(text));
    if (isUTF8(text)) ++valid;
  }
  EXPECT_GT(valid, 1000U);
}

struct PathParts {
  const char* path;
  const char* last;
  const char* extension;
};

TEST(TextTest, FindsTheLastComponentAndItsExtension) {
  const PathParts cases[] = {
      {"", "", ""},
      {"/", "/", ""},
      {"///", "/", ""},
      {"/bin/sh", "sh", ""},
      {"/bin/sh/", "sh", ""},
      {"/bin/sh///", "sh", ""},
      {"sh", "sh", ""},
      {"/a.b/c", "c", ""},
      {"/a/b.tgz", "b.tgz", "tgz"},
      {"/a/b.tar.gz/", "b.tar.gz", "gz"},
      {".profile", ".profile", ""},
      {"/home/.profile.txt", ".profile.txt", "txt"},
      {"name.", "name.", ""},
      {"..", "..", ""},
      {"a//b.c", "b.c", "c"},
  };
  for (const PathParts& parts : cases) {
    EXPECT_EQ(lastPathComponent(parts.path), parts.last) << parts.path;
    EXPECT_EQ(pathExtension(parts.path), parts.extension) << parts.path;
  }
}

TEST(TextTest, FindsTheComponentsThatLeadUp) {
  for (const char* path : {"..", "../a", "/..", "a/..", "a/../b", "a//../"})
    EXPECT_TRUE(hasParentComponent(path)) << path;
  for (const char* path : {"", "/", ".", "a", "...", "a../b", "a/..b/.c"})
    EXPECT_FALSE(hasParentComponent(path)) << path;
}

TEST(TextTest, JoinsPathsByExactlyOneSlash) {
  const struct {
    const char* base;
    const char* relative;
    const char* joined;
  } cases[] = {
      {"/a", "b", "/a/b"},         {"/a/", "b", "/a/b"}, {"/a///", "///b/c", "/a/b/c"},
      {"/a", "/b", "/a/b"},        {"/", "b", "/b"},     {"/", "/b", "/b"},
      {"/a", "", "/a/"},           {"", "b", "/b"},      {"a", "b", "a/b"},
      {"/a", "b//c/", "/a/b//c/"},
  };
  for (const auto& each : cases)
    EXPECT_EQ(joinedPath(each.base, each.relative), each.joined);
}

}  // namespace
}  // namespace quillsift
