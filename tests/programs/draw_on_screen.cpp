// Fills rectangles of the X screen that DISPLAY names, straight on its root window:
//   draw_on_screen [X Y WIDTH HEIGHT RRGGBB]...
#include <xcb/xcb.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

std::uint32_t pixelOf(xcb_connection_t* connection, const xcb_screen_t* screen, unsigned long rgb) {
  const auto part = [rgb](int shift) {
    return static_cast<std::uint16_t>((rgb >> shift & 0xFF) * 0x101);
  };
  xcb_alloc_color_reply_t* const reply = xcb_alloc_color_reply(
      connection, xcb_alloc_color(connection, screen->default_colormap, part(16), part(8), part(0)),
      nullptr);
  const std::uint32_t pixel = reply == nullptr ? 0 : reply->pixel;
  std::free(reply);
  return pixel;
}

}  // namespace

int main(int count, char** arguments) {
  xcb_connection_t* const connection = xcb_connect(nullptr, nullptr);
  if (xcb_connection_has_error(connection) != 0) {
    std::fputs("draw_on_screen: no X server\n", stderr);
    return 1;
  }
  const xcb_screen_t* const screen = xcb_setup_roots_iterator(xcb_get_setup(connection)).data;
  const xcb_gcontext_t context = xcb_generate_id(connection);
  // Windows would be drawn over otherwise.
  const std::uint32_t mode = XCB_SUBWINDOW_MODE_INCLUDE_INFERIORS;
  xcb_create_gc(connection, context, screen->root, XCB_GC_SUBWINDOW_MODE, &mode);
  for (int i = 1; i + 4 < count; i += 5) {
    const auto number = [&](int at, int base) {
      return std::strtoul(arguments[i + at], nullptr, base);
    };
    const std::uint32_t pixel = pixelOf(connection, screen, number(4, 16));
    xcb_change_gc(connection, context, XCB_GC_FOREGROUND, &pixel);
    const xcb_rectangle_t rectangle{
        static_cast<std::int16_t>(number(0, 10)), static_cast<std::int16_t>(number(1, 10)),
        static_cast<std::uint16_t>(number(2, 10)), static_cast<std::uint16_t>(number(3, 10))};
    xcb_poly_fill_rectangle(connection, screen->root, context, 1, &rectangle);
  }
  // An answer to a question asked last says that all is drawn.
  std::free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
  const bool failed = xcb_connection_has_error(connection) != 0;
  xcb_disconnect(connection);
  return failed ? 1 : 0;
}
