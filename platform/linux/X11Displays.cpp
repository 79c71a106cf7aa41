#include "platform/linux/X11Displays.h"

#include <xcb/randr.h>
#include <xcb/xcb.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include "platform/linux/NumberedEntries.h"
#include "platform/linux/PixelImage.h"
#include "platform/linux/X11Connection.h"
#include "platform/linux/X11Replies.h"

namespace quillsift {

namespace {

struct Place {
  xcb_window_t root = XCB_NONE;
  std::int16_t x = 0;
  std::int16_t y = 0;
  std::uint16_t width = 0;
  std::uint16_t height = 0;

  bool operator==(const Place&) const = default;
};

struct Output {
  std::uint32_t identifier = XCB_NONE;
  Place place;
  bool isPrimary = false;
  bool readable = true;
};

struct Freer {
  void operator()(void* reply) const { std::free(reply); }
};
template <typename Reply>
using Owned = std::unique_ptr<Reply, Freer>;

// Asks and waits. Null on an error, of the request or of the connection, and for an answer that is
// too short.
template <typename Cookie, typename Reply, typename... Arguments>
Owned<Reply> ask(xcb_connection_t* connection, Cookie (*request)(xcb_connection_t*, Arguments...),
                 Reply* (*reply)(xcb_connection_t*, Cookie, xcb_generic_error_t**),
                 std::type_identity_t<Arguments>... arguments) {
  Owned<Reply> answer(reply(connection, request(connection, arguments...), nullptr));
  return answer && isWholeReply(*answer) ? std::move(answer) : nullptr;
}

X11Welcome welcomeOf(xcb_connection_t* connection) {
  return X11Welcome(*::xcb_get_setup(connection));
}

// Version 1.3 knows a primary output, and tells the outputs without asking the hardware anew, which
// blanks some screens.
bool canListOutputs(xcb_connection_t* connection) {
  const auto* const extension = ::xcb_get_extension_data(connection, &xcb_randr_id);
  if (extension == nullptr || extension->present == 0) return false;
  const auto version =
      ask(connection, xcb_randr_query_version, xcb_randr_query_version_reply, 1, 3);
  return version && std::pair(version->major_version, version->minor_version) >= std::pair(1U, 3U);
}

// The outputs of a Wayland compositor's window server are called after it, and its root window is
// never drawn. None for a name that is not in the answer.
std::optional<bool> hasPicture(const xcb_randr_get_output_info_reply_t& output) {
  const auto name =
      listInReply(&output, reinterpret_cast<const char*>(::xcb_randr_get_output_info_name(&output)),
                  output.name_len);
  if (!name) return std::nullopt;
  return !std::string_view(name->data(), name->size()).starts_with("XWAYLAND");
}

std::optional<Output> activeOutput(xcb_connection_t* connection, xcb_window_t root,
                                   xcb_randr_output_t identifier) {
  const auto output = ask(connection, xcb_randr_get_output_info, xcb_randr_get_output_info_reply,
                          identifier, XCB_CURRENT_TIME);
  if (!output || output->crtc == XCB_NONE) return std::nullopt;
  const auto readable = hasPicture(*output);
  if (!readable) return std::nullopt;
  const auto crtc = ask(connection, xcb_randr_get_crtc_info, xcb_randr_get_crtc_info_reply,
                        output->crtc, XCB_CURRENT_TIME);
  if (!crtc || crtc->mode == XCB_NONE || crtc->width == 0 || crtc->height == 0) {
    return std::nullopt;
  }
  return Output{.identifier = identifier,
                .place = {root, crtc->x, crtc->y, crtc->width, crtc->height},
                .readable = *readable};
}

std::vector<Output> activeOutputs(xcb_connection_t* connection) {
  std::vector<Output> active;
  const bool hasOutputs = canListOutputs(connection);
  const X11Welcome welcome = welcomeOf(connection);
  for (const xcb_screen_t* screen : welcome.screens) {
    const Place whole{screen->root, 0, 0, screen->width_in_pixels, screen->height_in_pixels};
    if (!hasOutputs) {
      if (whole.width != 0 && whole.height != 0)
        active.push_back({.identifier = screen->root, .place = whole});
      continue;
    }
    const auto resources = ask(connection, xcb_randr_get_screen_resources_current,
                               xcb_randr_get_screen_resources_current_reply, screen->root);
    if (!resources) continue;
    const auto primary = ask(connection, xcb_randr_get_output_primary,
                             xcb_randr_get_output_primary_reply, screen->root);
    const auto outputs = listInReply(
        resources.get(), ::xcb_randr_get_screen_resources_current_outputs(resources.get()),
        resources->num_outputs);
    if (!outputs) continue;
    for (const xcb_randr_output_t identifier : *outputs) {
      auto output = activeOutput(connection, screen->root, identifier);
      if (!output) continue;
      output->isPrimary = primary && primary->output == identifier;
      active.push_back(*output);
    }
  }
  return active;
}

const xcb_visualtype_t* findVisual(const X11Welcome& welcome, xcb_visualid_t identifier) {
  const auto visual = std::ranges::find(welcome.visuals, identifier, &xcb_visualtype_t::visual_id);
  return visual == welcome.visuals.end() ? nullptr : *visual;
}

const xcb_format_t* findFormat(const X11Welcome& welcome, std::uint8_t depth) {
  const auto format = std::ranges::find(welcome.formats, depth, &xcb_format_t::depth);
  return format == welcome.formats.end() ? nullptr : &*format;
}

// None for visuals with a palette.
std::optional<PixelLayout> layoutOf(xcb_connection_t* connection, const xcb_visualtype_t& visual,
                                    const xcb_format_t& format) {
  const bool isDirect = visual._class == XCB_VISUAL_CLASS_TRUE_COLOR ||
                        visual._class == XCB_VISUAL_CLASS_DIRECT_COLOR;
  if (!isDirect || format.bits_per_pixel % 8 != 0) return std::nullopt;
  const auto order = ::xcb_get_setup(connection)->image_byte_order;
  return PixelLayout{.bytesPerPixel = format.bits_per_pixel / 8U,
                     .bigEndian = order == XCB_IMAGE_ORDER_MSB_FIRST,
                     .redMask = visual.red_mask,
                     .greenMask = visual.green_mask,
                     .blueMask = visual.blue_mask};
}

std::unique_ptr<ScreenImage> imageOf(xcb_connection_t* connection, const Place& place,
                                     Owned<xcb_get_image_reply_t> reply) {
  const X11Welcome welcome = welcomeOf(connection);
  const auto* const visual = findVisual(welcome, reply->visual);
  const auto* const format = findFormat(welcome, reply->depth);
  if (visual == nullptr || format == nullptr || format->scanline_pad < 8) return nullptr;
  const auto layout = layoutOf(connection, *visual, *format);
  if (!layout) return nullptr;
  const std::size_t pad = format->scanline_pad / 8U;
  const std::size_t stride = (place.width * layout->bytesPerPixel + pad - 1) / pad * pad;
  if (lengthOfReply(reply.get()) - sizeof(*reply) < stride * place.height) return nullptr;
  const std::shared_ptr<xcb_get_image_reply_t> owner(std::move(reply));
  return PixelImage::make(place.width, place.height, *layout, [owner, stride](std::uint32_t row) {
    return reinterpret_cast<const std::byte*>(::xcb_get_image_data(owner.get())) + row * stride;
  });
}

}  // namespace

X11Displays::X11Displays(std::shared_ptr<const PlatformTree> tree, std::chrono::nanoseconds limit)
    : tree_(std::move(tree)), limit_(limit) {}

int X11Displays::listServer(const std::string& socket, std::vector<ActiveDisplay>* displays) const {
  const auto server = X11Connection::open(socket, *tree_, limit_);
  if (!server) return errno;
  const auto outputs = activeOutputs(server->get());
  if (const int error = server->error(); error != 0) return error;
  std::vector<Shown<Place>> shown;
  for (const Output& output : outputs) {
    displays->push_back(
        {.source = socket, .object = output.identifier, .readable = output.readable});
    shown.push_back({.place = output.place, .isPrimary = output.isPrimary});
  }
  markMirrors(shown, displays);
  return 0;
}

int X11Displays::list(std::vector<ActiveDisplay>* displays) {
  int error = ENOSYS;
  std::size_t asked = 0;
  bool answered = false;
  for (const auto& [number, socket] :
       numberedEntries(tree_->resolve("/tmp/.X11-unix").value_or(""), "X")) {
    const int code = listServer(socket, displays);
    // A server that was killed leaves its socket behind.
    if (code == ECONNREFUSED || code == ENOENT) continue;
    if (code == 0 && !displays->empty()) return 0;
    if (code == 0) answered = true;
    if (code != 0 && error == ENOSYS) error = code;
    if (++asked == kMostServers) break;
  }
  return answered ? 0 : error;
}

std::unique_ptr<ScreenImage> X11Displays::capture(const ActiveDisplay& display) {
  const auto server = X11Connection::open(display.source, *tree_, limit_);
  if (!server) return nullptr;
  const auto outputs = activeOutputs(server->get());
  const auto output = std::ranges::find(outputs, display.object, &Output::identifier);
  if (output == outputs.end() || !output->readable) return nullptr;
  const Place& place = output->place;
  if (!PixelImage::holdsPicture(place.width, place.height)) return nullptr;
  constexpr std::uint32_t kAllPlanes = 0xFFFFFFFF;
  auto image = ask(server->get(), xcb_get_image, xcb_get_image_reply, XCB_IMAGE_FORMAT_Z_PIXMAP,
                   place.root, place.x, place.y, place.width, place.height, kAllPlanes);
  return image ? imageOf(server->get(), place, std::move(image)) : nullptr;
}

}  // namespace quillsift
