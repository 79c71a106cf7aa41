#include "platform/linux/X11Replies.h"

#include <xcb/xcb.h>

namespace quillsift {

namespace {

constexpr std::size_t kWord = 4;

using Bytes = std::span<const std::byte>;

Bytes bytesOf(const xcb_setup_t& setup) {
  constexpr std::size_t kHeader = 8;  // what its length does not count
  return {reinterpret_cast<const std::byte*>(&setup), kHeader + kWord * setup.length};
}

// Takes the elements that come next; none when there are not so many.
template <typename Element>
std::optional<std::span<const Element>> take(Bytes* rest, std::size_t count) {
  const auto elements =
      elementsWithin(*rest, reinterpret_cast<const Element*>(rest->data()), count);
  if (elements) *rest = rest->subspan(elements->size_bytes());
  return elements;
}

// Takes the text that comes next, and the padding behind it.
std::optional<std::span<const char>> takeText(Bytes* rest, std::size_t length) {
  const auto text = take<char>(rest, length);
  if (!text || !take<char>(rest, (kWord - length % kWord) % kWord)) return std::nullopt;
  return text;
}

// Takes a screen with the depths and visuals behind it.
const xcb_screen_t* takeScreen(Bytes* rest, std::vector<const xcb_visualtype_t*>* all) {
  const auto screen = take<xcb_screen_t>(rest, 1);
  if (!screen) return nullptr;
  for (std::size_t left = screen->front().allowed_depths_len; left > 0; --left) {
    const auto depth = take<xcb_depth_t>(rest, 1);
    if (!depth) return nullptr;
    const auto visuals = take<xcb_visualtype_t>(rest, depth->front().visuals_len);
    if (!visuals) return nullptr;
    for (const xcb_visualtype_t& visual : *visuals)
      all->push_back(&visual);
  }
  return screen->data();
}

}  // namespace

std::size_t lengthOfReply(const void* reply) {
  constexpr std::size_t kHeader = 32;
  return kHeader + kWord * static_cast<const xcb_generic_reply_t*>(reply)->length;
}

X11Welcome::X11Welcome(const xcb_setup_t& setup) {
  Bytes rest = bytesOf(setup);
  if (!take<xcb_setup_t>(&rest, 1)) return;
  const auto name = takeText(&rest, setup.vendor_len);
  if (!name) return;
  vendor = *name;
  const auto pixelFormats = take<xcb_format_t>(&rest, setup.pixmap_formats_len);
  if (!pixelFormats) return;
  formats = *pixelFormats;
  for (std::size_t left = setup.roots_len; left > 0; --left) {
    const xcb_screen_t* const screen = takeScreen(&rest, &visuals);
    if (screen == nullptr) return;
    screens.push_back(screen);
  }
}

}  // namespace quillsift
