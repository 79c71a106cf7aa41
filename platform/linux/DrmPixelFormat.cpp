#include "platform/linux/DrmPixelFormat.h"

#include <drm_fourcc.h>

#include <algorithm>
#include <iterator>

namespace quillsift {

namespace {

struct Format {
  std::uint32_t code;
  unsigned bytes;
  std::uint32_t red, green, blue;
};

constexpr Format kFormats[] = {
    {DRM_FORMAT_XRGB8888, 4, 0xFF0000, 0xFF00, 0xFF},
    {DRM_FORMAT_ARGB8888, 4, 0xFF0000, 0xFF00, 0xFF},
    {DRM_FORMAT_XBGR8888, 4, 0xFF, 0xFF00, 0xFF0000},
    {DRM_FORMAT_ABGR8888, 4, 0xFF, 0xFF00, 0xFF0000},
    {DRM_FORMAT_RGBX8888, 4, 0xFF000000, 0xFF0000, 0xFF00},
    {DRM_FORMAT_RGBA8888, 4, 0xFF000000, 0xFF0000, 0xFF00},
    {DRM_FORMAT_BGRX8888, 4, 0xFF00, 0xFF0000, 0xFF000000},
    {DRM_FORMAT_BGRA8888, 4, 0xFF00, 0xFF0000, 0xFF000000},
    {DRM_FORMAT_XRGB2101010, 4, 0x3FF00000, 0xFFC00, 0x3FF},
    {DRM_FORMAT_ARGB2101010, 4, 0x3FF00000, 0xFFC00, 0x3FF},
    {DRM_FORMAT_XBGR2101010, 4, 0x3FF, 0xFFC00, 0x3FF00000},
    {DRM_FORMAT_ABGR2101010, 4, 0x3FF, 0xFFC00, 0x3FF00000},
    {DRM_FORMAT_RGB888, 3, 0xFF0000, 0xFF00, 0xFF},
    {DRM_FORMAT_BGR888, 3, 0xFF, 0xFF00, 0xFF0000},
    {DRM_FORMAT_RGB565, 2, 0xF800, 0x7E0, 0x1F},
    {DRM_FORMAT_BGR565, 2, 0x1F, 0x7E0, 0xF800},
    {DRM_FORMAT_XRGB1555, 2, 0x7C00, 0x3E0, 0x1F},
    {DRM_FORMAT_ARGB1555, 2, 0x7C00, 0x3E0, 0x1F},
    {DRM_FORMAT_XBGR1555, 2, 0x1F, 0x3E0, 0x7C00},
    {DRM_FORMAT_RGB332, 1, 0xE0, 0x1C, 0x3},
};

}  // namespace

std::optional<PixelLayout> pixelLayoutOf(std::uint32_t drmFormat) {
  constexpr auto kBigEndian = static_cast<std::uint32_t>(DRM_FORMAT_BIG_ENDIAN);
  const auto* const format = std::ranges::find(kFormats, drmFormat & ~kBigEndian, &Format::code);
  if (format == std::end(kFormats)) return std::nullopt;
  return PixelLayout{.bytesPerPixel = format->bytes,
                     .bigEndian = (drmFormat & kBigEndian) != 0,
                     .redMask = format->red,
                     .greenMask = format->green,
                     .blueMask = format->blue};
}

bool isLinear(const DrmFramebuffer& framebuffer) {
  return framebuffer.modifier.value_or(DRM_FORMAT_MOD_LINEAR) == DRM_FORMAT_MOD_LINEAR;
}

}  // namespace quillsift
