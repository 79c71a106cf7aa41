#include "platform/linux/PixelImage.h"

#include <utility>

#include "platform/linux/PNGEncoder.h"

namespace quillsift {

bool PixelImage::holdsPicture(std::uint32_t width, std::uint32_t height) {
  return width != 0 && height != 0 && std::uint64_t{width} * height <= kMostPixels;
}

std::unique_ptr<PixelImage> PixelImage::make(std::uint32_t width, std::uint32_t height,
                                             const PixelLayout& layout, StoredRows rows) {
  auto reader = PixelReader::make(layout);
  if (!reader || !holdsPicture(width, height)) return nullptr;
  return std::unique_ptr<PixelImage>(
      new PixelImage(width, height, std::move(*reader), std::move(rows)));
}

PixelImage::PixelImage(std::uint32_t width, std::uint32_t height, PixelReader reader,
                       StoredRows rows)
    : width_(width), height_(height), reader_(std::move(reader)), rows_(std::move(rows)) {}

std::optional<QSData> PixelImage::encodeAsPNG() {
  return encodePNG(width_, height_, [this](std::uint32_t row, std::uint8_t* rgb) {
    const std::byte* const stored = rows_(row);
    if (stored == nullptr) return false;
    reader_.read(stored, width_, rgb);
    return true;
  });
}

}  // namespace quillsift
