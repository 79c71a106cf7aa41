#include "tests/platform/linux/DecodedPicture.h"

#include <png.h>

namespace quillsift::testing {

std::optional<DecodedPicture> decodePNG(const QSData& png) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (png_image_begin_read_from_memory(&image, png.bytes().data(), png.length()) == 0) {
    return std::nullopt;
  }
  image.format = PNG_FORMAT_RGB;
  DecodedPicture picture{.width = image.width, .height = image.height, .rgb = {}};
  picture.rgb.resize(PNG_IMAGE_SIZE(image));
  const int done = png_image_finish_read(&image, nullptr, picture.rgb.data(), 0, nullptr);
  png_image_free(&image);
  if (done == 0) return std::nullopt;
  return picture;
}

std::optional<DecodedPicture> decode(const std::unique_ptr<ScreenImage>& image) {
  const auto png = image ? image->encodeAsPNG() : std::nullopt;
  return png ? decodePNG(*png) : std::nullopt;
}

}  // namespace quillsift::testing
