#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "platform/QSData.h"

namespace quillsift {

// Writes row `row` of a picture to `rgb`, three bytes a pixel. False when it cannot be read any
// more, which ends the encoding.
using PixelRows = std::function<bool(std::uint32_t row, std::uint8_t* rgb)>;

// A picture as PNG, eight bits a colour. Asks for each row once, from the top down, and holds one
// row besides the result. None for a picture without pixels, for rows that fail and when memory
// runs out. Any thread.
std::optional<QSData> encodePNG(std::uint32_t width, std::uint32_t height, const PixelRows& rows);

}  // namespace quillsift
