#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>

#include "platform/linux/ConsoleDisplay.h"
#include "platform/linux/ConsoleFont.h"
#include "platform/linux/ConsoleImage.h"
#include "tests/platform/linux/DecodedPicture.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

using quillsift::testing::decode;
using quillsift::testing::DecodedPicture;
using ::testing::Each;
using ::testing::ElementsAre;

std::string attributed(std::size_t lines, std::size_t columns, std::string_view text,
                       std::uint8_t colours = 7) {
  std::string bytes = {static_cast<char>(lines), static_cast<char>(columns), 0, 0};
  for (const char glyph : text) {
    bytes += glyph;
    bytes += static_cast<char>(colours);
  }
  return bytes;
}

std::string bytesOf(std::u32string_view text) {
  return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(char32_t)};
}

std::optional<ConsoleScreen> parse(const std::string& words, const std::string& characters = {},
                                   std::uint16_t highGlyphBit = 0) {
  return parseConsoleScreen(std::as_bytes(std::span(words)), std::as_bytes(std::span(characters)),
                            highGlyphBit);
}

std::u32string textOf(const ConsoleScreen& screen) {
  std::u32string text;
  for (const ConsoleScreen::Cell& cell : screen.cells)
    text += cell.character;
  return text;
}

TEST(ConsoleScreenTest, TakesGlyphsForCharactersWhereThereIsNoOtherList) {
  const auto screen = parse(attributed(2, 3, "abcdef", 0x1E));
  ASSERT_TRUE(screen);
  EXPECT_EQ(screen->columns, 3U);
  EXPECT_EQ(screen->lines(), 2U);
  EXPECT_EQ(textOf(*screen), U"abcdef");
  EXPECT_EQ(screen->cells[5].foreground, 0xE);
  EXPECT_EQ(screen->cells[5].background, 1);
}

TEST(ConsoleScreenTest, TakesTheListOfCharacters) {
  const auto screen = parse(attributed(1, 2, "xy"), bytesOf(U"\u2500\u00E4"));
  ASSERT_TRUE(screen);
  EXPECT_EQ(textOf(*screen), U"\u2500\u00E4");
}

TEST(ConsoleScreenTest, IgnoresAListOfAnotherSize) {
  const auto screen = parse(attributed(1, 2, "xy"), bytesOf(U"abc"));
  ASSERT_TRUE(screen);
  EXPECT_EQ(textOf(*screen), U"xy");
}

TEST(ConsoleScreenTest, DoesNotTakeBlinkingForAColour) {
  EXPECT_EQ(parse(attributed(1, 1, "x", 0xF4)).value().cells[0].background, 7);
}

TEST(ConsoleScreenTest, FindsColoursBesideTheNinthBitOfAGlyph) {
  // Foreground 4 and background 1, moved up by one; glyph 0x141.
  const auto screen = parse(attributed(1, 1, "\x41", 0x29), "", 0x100);
  ASSERT_TRUE(screen);
  EXPECT_EQ(screen->cells[0].foreground, 4);
  EXPECT_EQ(screen->cells[0].background, 1);
  EXPECT_EQ(screen->cells[0].character, U'\uFFFD');
  EXPECT_EQ(parse(attributed(1, 1, "\x41", 0x28), "", 0x100).value().cells[0].character, U'A');
  EXPECT_EQ(
      parse(attributed(1, 1, "\x41", 0x29), bytesOf(U"\u0416"), 0x100).value().cells[0].character,
      U'\u0416');
}

TEST(ConsoleScreenTest, RefusesNumbersThatDoNotFit) {
  EXPECT_FALSE(parse(""));
  EXPECT_FALSE(parse("\1\1"));
  EXPECT_FALSE(parse(attributed(0, 0, "")));
  EXPECT_FALSE(parse(attributed(1, 0, "x")));
  EXPECT_FALSE(parse(attributed(0, 1, "x")));
  EXPECT_FALSE(parse(attributed(1, 1, "")));
  EXPECT_FALSE(parse(attributed(2, 3, "abcde")));
  EXPECT_FALSE(parse(attributed(2, 3, "abcdefg")));
  EXPECT_FALSE(parse(attributed(255, 80, std::string(100, 'x'))));
}

TEST(ConsoleScreenTest, MeasuresAConsoleThatIsWiderThanItCanSay) {
  const auto wide = parse(attributed(2, 255, std::string(2 * 480, 'x')));
  ASSERT_TRUE(wide);
  EXPECT_EQ(wide->columns, 480U);
  EXPECT_EQ(wide->lines(), 2U);
  EXPECT_EQ(parse(attributed(2, 255, std::string(2 * 255, 'x'))).value().columns, 255U);
  EXPECT_FALSE(parse(attributed(2, 255, std::string(2 * 480 + 1, 'x'))));
  EXPECT_EQ(parse(attributed(255, 2, std::string(300 * 2, 'x'))).value().lines(), 300U);
}

std::vector<std::uint8_t> glyph(char32_t character) {
  std::vector<std::uint8_t> rows;
  for (std::size_t row = 0; row < ConsoleFont::kHeight; ++row)
    rows.push_back(ConsoleFont::row(character, row));
  return rows;
}

TEST(ConsoleFontTest, HasAShapeOfItsOwnForEachSignOfASCII) {
  std::set<std::vector<std::uint8_t>> shapes;
  for (char32_t character = U' '; character <= U'~'; ++character) {
    EXPECT_TRUE(shapes.insert(glyph(character)).second) << static_cast<char>(character);
    for (const std::uint8_t row : glyph(character))
      EXPECT_EQ(row & 1, 0) << "touches its neighbour: " << static_cast<char>(character);
  }
  EXPECT_FALSE(shapes.contains(glyph(U'\u4E2D')));
  EXPECT_THAT(glyph(U' '), Each(0));
}

TEST(ConsoleFontTest, DrawsLettersTheRightWayRound) {
  EXPECT_THAT(glyph(U'L'), ElementsAre(0, 0b100000, 0b100000, 0b100000, 0b100000, 0b100000,
                                       0b100000, 0b111110, 0, 0));
}

TEST(ConsoleFontTest, DrawsLinesThatMeet) {
  const std::uint8_t across = 0b111111, middle = 0b001000;
  EXPECT_THAT(glyph(U'\u2500'), ElementsAre(0, 0, 0, 0, across, 0, 0, 0, 0, 0));
  EXPECT_THAT(glyph(U'\u2502'), Each(middle));
  EXPECT_THAT(glyph(U'\u250C'),
              ElementsAre(0, 0, 0, 0, 0b001111, middle, middle, middle, middle, middle));
  EXPECT_THAT(glyph(U'\u2518'),
              ElementsAre(middle, middle, middle, middle, 0b111000, 0, 0, 0, 0, 0));
  EXPECT_EQ(glyph(U'\u2550'), glyph(U'\u2500'));
  EXPECT_EQ(glyph(U'\u2554'), glyph(U'\u250C'));
  EXPECT_EQ(glyph(U'\u256C'), glyph(U'\u253C'));
  EXPECT_EQ(glyph(U'\u256F'), glyph(U'\u2518'));
  EXPECT_EQ(glyph(U'\u257F'), glyph(U'\u2502'));
  EXPECT_EQ(glyph(U'\u2571'), glyph(U'/'));
  for (char32_t character = U'\u2500'; character <= U'\u257F'; ++character)
    EXPECT_NE(glyph(character), glyph(U'\uFFFD'));
}

TEST(ConsoleFontTest, DrawsBlocks) {
  EXPECT_THAT(glyph(U'\u2588'), Each(0b111111));
  EXPECT_THAT(glyph(U'\u258C'), Each(0b111000));
  EXPECT_THAT(glyph(U'\u2590'), Each(0b000111));
  EXPECT_EQ(glyph(U'\u2580')[4], 0b111111);
  EXPECT_EQ(glyph(U'\u2580')[5], 0);
  EXPECT_EQ(glyph(U'\u2584')[4], 0);
  EXPECT_EQ(glyph(U'\u2584')[5], 0b111111);
  std::set<std::vector<std::uint8_t>> shades;
  for (const char32_t character : {U' ', U'\u2591', U'\u2592', U'\u2593', U'\u2588'})
    EXPECT_TRUE(shades.insert(glyph(character)).second);
}

TEST(ConsoleFontTest, FallsBackOnALikeness) {
  EXPECT_EQ(glyph(U'\u2019'), glyph(U'\''));
  EXPECT_EQ(glyph(U'\u25CF'), glyph(U'*'));
  EXPECT_EQ(glyph(U'\u0000'), glyph(U' '));
  EXPECT_EQ(glyph(U'\u00E9'), glyph(U'\uFFFD'));
  EXPECT_EQ(glyph(U'\u007F'), glyph(U'\uFFFD'));
  EXPECT_EQ(glyph(U'\u001F'), glyph(U'\uFFFD'));
}

class ConsoleDisplayTest : public ::testing::Test {
 protected:
  ConsoleDisplayTest() { scratch.write("dev/tty0", "no terminal"); }

  std::optional<DecodedPicture> capture() { return decode(console.capture({})); }

  const ScratchTree scratch;
  ConsoleDisplay console{scratch.tree()};
  std::vector<ActiveDisplay> listed;
};

TEST_F(ConsoleDisplayTest, DrawsWhatTheConsoleShows) {
  scratch.write("dev/vcsa", attributed(2, 3, "ab L  ", 0x1E));
  ASSERT_EQ(console.list(&listed), 0);
  ASSERT_EQ(listed.size(), 1U);
  EXPECT_EQ(listed[0].object, 0U);
  const auto picture = capture();
  ASSERT_TRUE(picture);
  constexpr std::size_t kCellWidth = ConsoleFont::kWidth * ConsoleImage::kScale;
  constexpr std::size_t kCellHeight = ConsoleFont::kHeight * ConsoleImage::kScale;
  EXPECT_EQ(picture->width, 3 * kCellWidth);
  EXPECT_EQ(picture->height, 2 * kCellHeight);
  const std::uint32_t yellow = 0xFFFF55, blue = 0x0000AA;
  for (std::size_t y = 0; y < kCellHeight; ++y) {
    for (std::size_t x = 0; x < kCellWidth; ++x) {
      const unsigned dots = ConsoleFont::row(U'L', y / 2);
      const bool isLit = (dots >> (ConsoleFont::kWidth - 1 - x / 2) & 1) != 0;
      EXPECT_EQ(picture->at(x, kCellHeight + y), isLit ? yellow : blue);
    }
  }
}

TEST_F(ConsoleDisplayTest, PrefersTheListOfCharacters) {
  scratch.write("dev/vcsa", attributed(1, 1, "x", 0x04));
  scratch.write("dev/vcsu", bytesOf(U"\u2588"));
  const auto picture = capture();
  ASSERT_TRUE(picture);
  EXPECT_EQ(picture->at(0, 0), 0xAA0000U);
}

TEST_F(ConsoleDisplayTest, IsNotThereWithoutTheDevice) {
  scratch.link("dev/vcsa", "/dev/null");
  EXPECT_EQ(console.list(&listed), ENOSYS);
  EXPECT_EQ(console.capture({}), nullptr);
  EXPECT_TRUE(listed.empty());
}

TEST_F(ConsoleDisplayTest, SaysWhyTheDeviceCannotBeRead) {
  scratch.makeDirectory("dev/vcsa");
  EXPECT_EQ(console.list(&listed), EISDIR);
}

TEST_F(ConsoleDisplayTest, CapturesNothingOfAConsoleThatMakesNoSense) {
  scratch.write("dev/vcsa", attributed(25, 80, "short"));
  EXPECT_EQ(console.list(&listed), 0);
  EXPECT_EQ(console.capture({}), nullptr);
}

TEST(ConsoleDisplayOfHostTest, ReadsTheKernelsOwnDevice) {
  if (::access("/dev/vcsa", R_OK) != 0) GTEST_SKIP() << "no console that may be read";
  ConsoleDisplay console(std::make_shared<const PlatformTree>("/nonexistent"));
  std::vector<ActiveDisplay> listed;
  ASSERT_EQ(console.list(&listed), 0);
  const auto picture = decode(console.capture(listed.at(0)));
  ASSERT_TRUE(picture);
  EXPECT_GT(picture->width, ConsoleFont::kWidth);
}

}  // namespace
}  // namespace quillsift
