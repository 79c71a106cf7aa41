#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/Displays.h"
#include "platform/linux/ConsoleScreen.h"

namespace quillsift {

// A text console drawn in a font of our own, which is made row by row while it is encoded.
class ConsoleImage : public ScreenImage {
 public:
  // Pixels a dot of the font, in both directions.
  static constexpr std::size_t kScale = 2;

  explicit ConsoleImage(ConsoleScreen screen);

  std::size_t width() const;
  std::size_t height() const;
  std::optional<QSData> encodeAsPNG() override;

 private:
  void drawRow(std::size_t row, std::uint8_t* rgb) const;

  const ConsoleScreen screen_;
};

}  // namespace quillsift
