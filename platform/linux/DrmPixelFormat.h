#pragma once

#include <cstdint>
#include <optional>

#include "platform/linux/DrmCard.h"
#include "platform/linux/PixelLayout.h"

namespace quillsift {

// How the pixels of a format are stored. None for formats with a palette, with several planes or
// with more than 32 bits a pixel.
std::optional<PixelLayout> pixelLayoutOf(std::uint32_t drmFormat);

// Whether the rows follow each other in memory. A driver that says nothing about the arrangement
// has no other in its framebuffers, but for a few old ones.
bool isLinear(const DrmFramebuffer& framebuffer);

}  // namespace quillsift
