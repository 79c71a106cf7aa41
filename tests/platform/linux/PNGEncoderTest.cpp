#include <gmock/gmock.h>

#include <random>
#include <vector>

#include "platform/linux/PNGEncoder.h"
#include "platform/linux/PixelImage.h"
#include "tests/platform/linux/DecodedPicture.h"

namespace quillsift {
namespace {

using quillsift::testing::decode;
using quillsift::testing::decodePNG;
using ::testing::ElementsAre;

std::vector<std::uint8_t> noise(std::size_t length) {
  std::mt19937 random(1);
  std::vector<std::uint8_t> bytes(length);
  for (std::uint8_t& byte : bytes)
    byte = static_cast<std::uint8_t>(random());
  return bytes;
}

TEST(PNGEncoderTest, WritesAPictureThatOpens) {
  const std::vector<std::uint8_t> pixels = noise(3 * 77 * 13);
  std::vector<std::uint32_t> asked;
  const auto png = encodePNG(77, 13, [&](std::uint32_t row, std::uint8_t* rgb) {
    asked.push_back(row);
    std::copy_n(pixels.begin() + row * 3 * 77, 3 * 77, rgb);
    return true;
  });
  ASSERT_TRUE(png);
  const auto picture = decodePNG(*png);
  ASSERT_TRUE(picture);
  EXPECT_EQ(picture->width, 77U);
  EXPECT_EQ(picture->height, 13U);
  EXPECT_EQ(picture->rgb, pixels);
  EXPECT_THAT(asked, ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12));
}

TEST(PNGEncoderTest, WritesMoreThanTheFirstPlaceOfItsBufferHolds) {
  const std::vector<std::uint8_t> pixels = noise(3 * 1000 * 700);
  const auto png = encodePNG(1000, 700, [&](std::uint32_t row, std::uint8_t* rgb) {
    std::copy_n(pixels.begin() + row * 3 * 1000, 3 * 1000, rgb);
    return true;
  });
  ASSERT_TRUE(png);
  EXPECT_GT(png->length(), 2000000U);
  const auto picture = decodePNG(*png);
  ASSERT_TRUE(picture);
  EXPECT_EQ(picture->rgb, pixels);
}

TEST(PNGEncoderTest, EncodesOnePixel) {
  const auto png = encodePNG(1, 1, [](std::uint32_t, std::uint8_t* rgb) {
    rgb[0] = 1, rgb[1] = 2, rgb[2] = 3;
    return true;
  });
  ASSERT_TRUE(png);
  EXPECT_EQ(decodePNG(*png).value().at(0, 0), 0x010203U);
}

TEST(PNGEncoderTest, EncodesNothingWithoutPixels) {
  const auto rows = [](std::uint32_t, std::uint8_t*) { return true; };
  EXPECT_FALSE(encodePNG(0, 5, rows));
  EXPECT_FALSE(encodePNG(5, 0, rows));
}

TEST(PNGEncoderTest, FailsOnASizeThatTheFormatDoesNotAllow) {
  int rows = 0;
  EXPECT_FALSE(encodePNG(2000000, 1, [&](std::uint32_t, std::uint8_t*) { return ++rows > 0; }));
  EXPECT_EQ(rows, 0);
}

TEST(PNGEncoderTest, EndsWithARowThatCannotBeRead) {
  int rows = 0;
  EXPECT_FALSE(encodePNG(5, 5, [&](std::uint32_t, std::uint8_t*) { return ++rows < 3; }));
  EXPECT_EQ(rows, 3);
}

TEST(PNGEncoderTest, FailsWhenMemoryRunsOut) {
  EXPECT_FALSE(
      encodePNG(5, 5, [](std::uint32_t, std::uint8_t*) -> bool { throw std::bad_alloc(); }));
}

TEST(PixelImageTest, ReadsRowsWithTheirPadding) {
  static constexpr std::uint8_t kStored[2][8] = {{1, 2, 3, 4, 5, 6, 99, 99},
                                                 {7, 8, 9, 10, 11, 12, 99, 99}};
  const auto rows = [](std::uint32_t row) {
    return reinterpret_cast<const std::byte*>(kStored[row]);
  };
  const auto picture = decode(PixelImage::make(2, 2, {3, false, 0xFF0000, 0xFF00, 0xFF}, rows));
  ASSERT_TRUE(picture);
  EXPECT_THAT(picture->rgb, ElementsAre(3, 2, 1, 6, 5, 4, 9, 8, 7, 12, 11, 10));
}

TEST(PixelImageTest, CannotBeEncodedOnceARowIsLost) {
  static constexpr std::uint8_t kRow[4] = {};
  const auto image =
      PixelImage::make(1, 2, {4, false, 0xFF0000, 0xFF00, 0xFF}, [](std::uint32_t row) {
        return row == 0 ? reinterpret_cast<const std::byte*>(kRow) : nullptr;
      });
  ASSERT_NE(image, nullptr);
  EXPECT_FALSE(image->encodeAsPNG());
}

TEST(PixelImageTest, IsNotMadeOfWhatCannotBe) {
  const auto rows = [](std::uint32_t) -> const std::byte* { return nullptr; };
  const PixelLayout layout{4, false, 0xFF0000, 0xFF00, 0xFF};
  EXPECT_EQ(PixelImage::make(0, 1, layout, rows), nullptr);
  EXPECT_EQ(PixelImage::make(1, 0, layout, rows), nullptr);
  EXPECT_EQ(PixelImage::make(65535, 65535, layout, rows), nullptr);
  EXPECT_EQ(PixelImage::make(1, 1, PixelLayout{}, rows), nullptr);
  EXPECT_NE(PixelImage::make(7680, 8640, layout, rows), nullptr);
}

}  // namespace
}  // namespace quillsift
