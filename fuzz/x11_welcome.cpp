// The welcome of an X server. Input: the welcome, whose length the connection has seen to.

#include <xcb/xcb.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/linux/X11Replies.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kHeader = 8;
  constexpr std::size_t kMostWords = 0xFFFF;
  if (size < kHeader) return 0;
  const std::size_t words = std::min((size - kHeader) / 4, kMostWords);
  // Of just that length, so that a look behind its end is seen.
  std::vector<std::uint32_t> bytes(kHeader / 4 + words);
  std::memcpy(bytes.data(), data, bytes.size() * 4);
  auto* const setup = reinterpret_cast<xcb_setup_t*>(bytes.data());
  setup->length = static_cast<std::uint16_t>(words);

  const quillsift::X11Welcome welcome(*setup);
  std::uint64_t sum = 0;
  for (const char letter : welcome.vendor)
    sum += static_cast<unsigned char>(letter);
  for (const xcb_format_t& format : welcome.formats)
    sum += format.bits_per_pixel;
  for (const xcb_screen_t* const screen : welcome.screens)
    sum += screen->root + screen->allowed_depths_len;
  for (const xcb_visualtype_t* const visual : welcome.visuals)
    sum += visual->visual_id + visual->blue_mask;
  const std::size_t least = welcome.vendor.size() + welcome.formats.size_bytes() +
                            welcome.screens.size() * sizeof(xcb_screen_t) +
                            welcome.visuals.size() * sizeof(xcb_visualtype_t);
  if (least > bytes.size() * 4 || sum == ~std::uint64_t{0}) std::abort();
  return 0;
}
