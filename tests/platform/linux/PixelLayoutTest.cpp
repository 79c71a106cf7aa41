#include <gmock/gmock.h>

#include <initializer_list>

#include "platform/linux/PixelLayout.h"

namespace quillsift {
namespace {

using testing::ElementsAre;

std::vector<int> colours(const PixelLayout& layout, std::initializer_list<int> stored) {
  const auto reader = PixelReader::make(layout);
  if (!reader) return {};
  std::vector<std::byte> bytes;
  for (const int byte : stored)
    bytes.push_back(static_cast<std::byte>(byte));
  const std::size_t count = bytes.size() / layout.bytesPerPixel;
  std::vector<std::uint8_t> rgb(3 * count);
  reader->read(bytes.data(), count, rgb.data());
  return {rgb.begin(), rgb.end()};
}

constexpr PixelLayout k888{4, false, 0xFF0000, 0xFF00, 0xFF};
constexpr PixelLayout k565{2, false, 0xF800, 0x7E0, 0x1F};
constexpr PixelLayout k30{4, false, 0x3FF00000, 0xFFC00, 0x3FF};

TEST(PixelLayoutTest, ReadsEightBitsAColour) {
  EXPECT_THAT(colours(k888, {1, 2, 3, 99, 4, 5, 6, 99}), ElementsAre(3, 2, 1, 6, 5, 4));
}

TEST(PixelLayoutTest, ReadsWordsWithTheHighByteFirst) {
  EXPECT_THAT(colours({4, true, 0xFF0000, 0xFF00, 0xFF}, {99, 1, 2, 3}), ElementsAre(1, 2, 3));
  EXPECT_THAT(colours({3, true, 0xFF0000, 0xFF00, 0xFF}, {1, 2, 3}), ElementsAre(1, 2, 3));
  EXPECT_THAT(colours({2, true, 0xF800, 0x7E0, 0x1F}, {0xF8, 0x00, 0x07, 0xE0}),
              ElementsAre(255, 0, 0, 0, 255, 0));
}

TEST(PixelLayoutTest, ReadsThreeBytesAPixel) {
  EXPECT_THAT(colours({3, false, 0xFF0000, 0xFF00, 0xFF}, {1, 2, 3, 4, 5, 6}),
              ElementsAre(3, 2, 1, 6, 5, 4));
}

TEST(PixelLayoutTest, ReadsWordsOfThreeBytesWithoutWholeBytes) {
  EXPECT_THAT(colours({3, false, 0xFC0000, 0x3F00, 0x3F}, {0x3F, 0x3F, 0xFC, 0, 0x3F, 0}),
              ElementsAre(255, 255, 255, 0, 255, 0));
  EXPECT_THAT(colours({3, true, 0xFC0000, 0x3F00, 0x3F}, {0xFC, 0, 0}), ElementsAre(255, 0, 0));
}

TEST(PixelLayoutTest, ReadsTenBitsAColourWithTheHighByteFirst) {
  EXPECT_THAT(colours({4, true, 0x3FF00000, 0xFFC00, 0x3FF}, {0x3F, 0xF0, 0x00, 0x00}),
              ElementsAre(255, 0, 0));
}

TEST(PixelLayoutTest, ReadsOneBytePixels) {
  EXPECT_THAT(colours({1, false, 0xE0, 0x1C, 0x3}, {0xE0, 0x1C, 0x03, 0xFF, 0x00}),
              ElementsAre(255, 0, 0, 0, 255, 0, 0, 0, 255, 255, 255, 255, 0, 0, 0));
}

TEST(PixelLayoutTest, SpreadsFewBitsOverTheWholeRange) {
  EXPECT_THAT(colours(k565, {0xFF, 0xFF, 0x00, 0x00, 0x00, 0x80, 0x00, 0x04, 0x10, 0x00}),
              ElementsAre(255, 255, 255, 0, 0, 0, 132, 0, 0, 0, 130, 0, 0, 0, 132));
}

TEST(PixelLayoutTest, CutsTenBitsToEight) {
  EXPECT_THAT(colours(k30, {0xFF, 0x03, 0x00, 0x00}), ElementsAre(0, 0, 255));
  EXPECT_THAT(colours(k30, {0x00, 0xFC, 0x0F, 0x00}), ElementsAre(0, 255, 0));
  EXPECT_THAT(colours(k30, {0x00, 0x00, 0x00, 0x20}), ElementsAre(128, 0, 0));
}

TEST(PixelLayoutTest, ReadsColoursInTheTopBits) {
  EXPECT_THAT(colours({4, false, 0xFF000000, 0xFF0000, 0xFF00}, {99, 1, 2, 3}),
              ElementsAre(3, 2, 1));
}

TEST(PixelLayoutTest, RefusesWhatCannotBe) {
  EXPECT_FALSE(PixelReader::make({0, false, 1, 2, 4}));
  EXPECT_FALSE(PixelReader::make({5, false, 1, 2, 4}));
  EXPECT_FALSE(PixelReader::make({4, false, 0, 0xFF00, 0xFF}));
  EXPECT_FALSE(PixelReader::make({4, false, 0xFF0000, 0, 0xFF}));
  EXPECT_FALSE(PixelReader::make({4, false, 0xFF0000, 0xFF00, 0}));
  EXPECT_FALSE(PixelReader::make({4, false, 0xF0F000, 0xF00, 0xFF}));
  EXPECT_FALSE(PixelReader::make({4, false, 0xFFFFFFFF, 0xF00, 0xFF}));
  EXPECT_FALSE(PixelReader::make({2, false, 0xFF0000, 0xFF00, 0xFF}));
  EXPECT_TRUE(PixelReader::make({4, false, 0xFFFF0000, 0xFFFF, 0xFFFF}));
}

}  // namespace
}  // namespace quillsift
