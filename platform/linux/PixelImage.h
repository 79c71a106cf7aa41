#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "platform/Displays.h"
#include "platform/linux/PixelLayout.h"

namespace quillsift {

// Where the stored pixels of a row begin; null when they cannot be read any more. What it points to
// stays until the next call.
using StoredRows = std::function<const std::byte*(std::uint32_t row)>;

// A picture of stored pixels, which are turned into colours row by row while it is encoded.
class PixelImage : public ScreenImage {
 public:
  // Null for a picture without pixels or with more than kMostPixels, and for a layout that cannot
  // be.
  static std::unique_ptr<PixelImage> make(std::uint32_t width, std::uint32_t height,
                                          const PixelLayout& layout, StoredRows rows);

  // Twice 7680 x 4320. Whoever claims more is not a display, and shall not fill our memory.
  static constexpr std::uint64_t kMostPixels = std::uint64_t{2} * 7680 * 4320;
  static bool holdsPicture(std::uint32_t width, std::uint32_t height);

  std::optional<QSData> encodeAsPNG() override;

 private:
  PixelImage(std::uint32_t width, std::uint32_t height, PixelReader reader, StoredRows rows);

  const std::uint32_t width_;
  const std::uint32_t height_;
  const PixelReader reader_;
  const StoredRows rows_;
};

}  // namespace quillsift
