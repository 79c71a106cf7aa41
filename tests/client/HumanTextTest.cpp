#include <gtest/gtest.h>

#include <clocale>
#include <limits>

#include "client/HumanText.h"

namespace quillsift {
namespace {

// Character widths are those of a locale.
class ScopedLocale {
 public:
  explicit ScopedLocale(const char* name) : before_(std::setlocale(LC_CTYPE, nullptr)) {
    EXPECT_NE(std::setlocale(LC_CTYPE, name), nullptr);
  }
  ~ScopedLocale() { std::setlocale(LC_CTYPE, before_.c_str()); }
  ScopedLocale(const ScopedLocale&) = delete;
  ScopedLocale& operator=(const ScopedLocale&) = delete;

 private:
  const std::string before_;
};

TEST(HumanTextTest, NamesSizesInBinaryUnits) {
  EXPECT_EQ(sizeText(0), "0 bytes");
  EXPECT_EQ(sizeText(1), "1 byte");
  EXPECT_EQ(sizeText(1023), "1023 bytes");
  EXPECT_EQ(sizeText(1024), "1.0 KiB");
  EXPECT_EQ(sizeText(1536), "1.5 KiB");
  EXPECT_EQ(sizeText(1024 * 1024 - 1), "1.0 MiB");
  EXPECT_EQ(sizeText(12'900'000), "12.3 MiB");
  EXPECT_EQ(sizeText(std::numeric_limits<std::uint64_t>::max()), "16.0 EiB");
}

TEST(HumanTextTest, NamesDurations) {
  using std::chrono::seconds;
  EXPECT_EQ(durationText(seconds(0)), "0:00");
  EXPECT_EQ(durationText(seconds(67)), "1:07");
  EXPECT_EQ(durationText(seconds(3599)), "59:59");
  EXPECT_EQ(durationText(seconds(3723)), "1:02:03");
}

TEST(HumanTextTest, LeavesNothingThatATerminalObeys) {
  EXPECT_EQ(printable("plain"), "plain");
  EXPECT_EQ(printable("a\nb\r\tc"), "a b  c");
  EXPECT_EQ(printable("\x1b[31mred\x07\x7f"), "\\x1b[31mred\\x07\\x7f");
  EXPECT_EQ(printable("csi \xC2\x9B"
                      "31m"),
            "csi \\x9b31m");
  EXPECT_EQ(printable("\xC2\xA0 \xC3\xBC"), "\xC2\xA0 \xC3\xBC");
  EXPECT_EQ(printable("bad \xFF"), "bad \xEF\xBF\xBD");
}

TEST(HumanTextTest, CutsAtTheWidthWithAnEllipsis) {
  EXPECT_EQ(fitted("0123456789", 10), "0123456789");
  EXPECT_EQ(fitted("0123456789", 9), "012345...");
  EXPECT_EQ(fitted("0123456789", 3), "...");
  EXPECT_EQ(fitted("0123456789", 2), "..");
  EXPECT_EQ(fitted("0123456789", 0), "");
  EXPECT_EQ(fitted("", 5), "");
}

TEST(HumanTextTest, CutsTheBeginningOfPaths) {
  EXPECT_EQ(fittedEnd("/long/way/to/x.tgz", 18), "/long/way/to/x.tgz");
  EXPECT_EQ(fittedEnd("/long/way/to/x.tgz", 12), ".../to/x.tgz");
  EXPECT_EQ(fittedEnd("/long/way/to/x.tgz", 1), ".");
}

TEST(HumanTextTest, CountsColumnsNotBytes) {
  const ScopedLocale locale("C.UTF-8");
  EXPECT_EQ(displayWidth("\xC3\xBC"), 1u);                  // one narrow character
  EXPECT_EQ(displayWidth("\xE6\x97\xA5\xE6\x9C\xAC"), 4u);  // two wide ones
  EXPECT_EQ(displayWidth("e\xCC\x81"), 1u);                 // one with a combining accent
  EXPECT_EQ(fitted("\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E", 5), "\xE6\x97\xA5...");
  // A wide character that fits only by half is left out.
  EXPECT_EQ(fitted("\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E", 4), "...");
  EXPECT_EQ(fittedEnd("\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E", 5), "...\xE8\xAA\x9E");
}

TEST(HumanTextTest, ShowsAQuestionMarkForWhatTheLocaleCannot) {
  const ScopedLocale locale("C");
  EXPECT_EQ(displayWidth("a\xC3\xBC"), 3u);
  EXPECT_EQ(fitted("a\xC3\xBC"
                   "b",
                   10),
            "a??b");
}

}  // namespace
}  // namespace quillsift
