#include "tools/XWindows.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <xcb/randr.h>
#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "platform/linux/X11Authority.h"
#include "platform/linux/X11Replies.h"
#include "tools/Descriptor.h"
#include "tools/Files.h"

namespace quillsift::tools {

namespace {

// More tell nobody anything; a client can make as many as it likes.
constexpr int kMostWindows = 4000;
constexpr int kMostLevels = 32;
constexpr std::uint32_t kMostClassWords = 64;  // of four bytes

struct Freer {
  void operator()(void* reply) const { std::free(reply); }
};
template <typename Reply>
using Owned = std::unique_ptr<Reply, Freer>;

struct Disconnect {
  void operator()(xcb_connection_t* connection) const { ::xcb_disconnect(connection); }
};
using Connection = std::unique_ptr<xcb_connection_t, Disconnect>;

Descriptor connectedSocket(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) return {};
  std::memcpy(address.sun_path, path.data(), path.size());
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket.valid()) return {};
  const auto* const place = reinterpret_cast<const sockaddr*>(&address);
  return ::connect(socket.get(), place, sizeof(address)) == 0 ? std::move(socket) : Descriptor();
}

bool isServedBy(int socket, uid_t user) {
  ucred peer{};
  socklen_t length = sizeof(peer);
  return ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 && peer.uid == user;
}

// Empty when there is none. The file is the server's own word: it must not make us tell it what its
// user cannot read.
std::string cookieOf(const WindowServer& server, const Host& host) {
  constexpr std::size_t kLongestFile = std::size_t{1} << 20;
  const uid_t user = server.account.user;
  if (server.authorityFile.empty() || (user != 0 && user != ::geteuid())) return {};
  const auto file = readFile(host.path(server.authorityFile), kLongestFile);
  return magicCookieIn(file.value_or("")).value_or("");
}

Connection connectTo(const WindowServer& server, const Host& host) {
  Descriptor socket = connectedSocket(host.path("/tmp/.X11-unix/X" + server.display.substr(1)));
  if (!socket.valid() || !isServedBy(socket.get(), server.account.user)) return nullptr;
  std::string cookie = cookieOf(server, host);
  std::string method(cookie.empty() ? std::string_view() : kMagicCookie);
  xcb_auth_info_t proof{.namelen = static_cast<int>(method.size()),
                        .name = method.data(),
                        .datalen = static_cast<int>(cookie.size()),
                        .data = cookie.data()};
  Connection connection(::xcb_connect_to_fd(socket.release(), &proof));
  return ::xcb_connection_has_error(connection.get()) == 0 ? std::move(connection) : nullptr;
}

// An answer that has come; none for an error, and for an answer that is too short.
template <typename Reply>
Owned<Reply> whole(Reply* reply) {
  Owned<Reply> owned(reply);
  return owned && isWholeReply(*owned) ? std::move(owned) : nullptr;
}

void writeNumber(PropertyListWriter* list, std::string_view name, std::int64_t number) {
  list->key(name);
  list->integer(number);
}

void writePlace(PropertyListWriter* list, int x, int y, int width, int height) {
  writeNumber(list, "X", x);
  writeNumber(list, "Y", y);
  writeNumber(list, "Width", width);
  writeNumber(list, "Height", height);
}

// --- Outputs ---

class Outputs {
 public:
  Outputs(xcb_connection_t* connection, PropertyListWriter* list)
      : connection_(connection), list_(list) {}

  // An array of dictionaries; an empty one for a server that does not know outputs.
  void write(xcb_window_t root) {
    list_->beginArray();
    if (isKnown()) writeAll(root);
    list_->endArray();
  }

 private:
  // A request that the server does not know would end the connection.
  bool isKnown() {
    const xcb_query_extension_reply_t* const extension =
        ::xcb_get_extension_data(connection_, &xcb_randr_id);
    if (extension == nullptr || extension->present == 0) return false;
    const auto version = whole(::xcb_randr_query_version_reply(
        connection_, ::xcb_randr_query_version(connection_, 1, 3), nullptr));
    return version && (version->major_version > 1 || version->minor_version >= 3);
  }

  void writeAll(xcb_window_t root) {
    const auto resources = whole(::xcb_randr_get_screen_resources_current_reply(
        connection_, ::xcb_randr_get_screen_resources_current(connection_, root), nullptr));
    const auto primary = whole(::xcb_randr_get_output_primary_reply(
        connection_, ::xcb_randr_get_output_primary(connection_, root), nullptr));
    if (!resources) return;
    const auto outputs = listInReply(
        resources.get(), ::xcb_randr_get_screen_resources_current_outputs(resources.get()),
        resources->num_outputs);
    if (!outputs) return;
    for (const xcb_randr_output_t output : *outputs)
      writeOutput(output, resources->config_timestamp, primary && primary->output == output);
  }

  void writeOutput(xcb_randr_output_t output, xcb_timestamp_t time, bool primary) {
    const auto info = whole(::xcb_randr_get_output_info_reply(
        connection_, ::xcb_randr_get_output_info(connection_, output, time), nullptr));
    if (!info) return;
    const auto name = listInReply(
        info.get(), reinterpret_cast<const char*>(::xcb_randr_get_output_info_name(info.get())),
        info->name_len);
    if (!name) return;
    list_->beginDictionary();
    list_->key("Name");
    list_->text({name->data(), name->size()});
    list_->key("Connected");
    list_->boolean(info->connection == XCB_RANDR_CONNECTION_CONNECTED);
    list_->key("Primary");
    list_->boolean(primary);
    if (info->crtc != XCB_NONE) writePicture(info->crtc, time);
    list_->endDictionary();
  }

  // The part of the screen that the output shows.
  void writePicture(xcb_randr_crtc_t crtc, xcb_timestamp_t time) {
    const auto info = whole(::xcb_randr_get_crtc_info_reply(
        connection_, ::xcb_randr_get_crtc_info(connection_, crtc, time), nullptr));
    if (info) writePlace(list_, info->x, info->y, info->width, info->height);
  }

  xcb_connection_t* const connection_;
  PropertyListWriter* const list_;
};

// --- Windows ---

class Windows {
 public:
  Windows(xcb_connection_t* connection, PropertyListWriter* list)
      : connection_(connection), list_(list) {}

  // The window and those within it, bottom first; false for one that has just gone.
  bool write(xcb_window_t window, int level = 1) {
    if (left_ == 0) return false;
    // All questions first: one wait for four answers.
    const auto geometryAsked = ::xcb_get_geometry(connection_, window);
    const auto attributesAsked = ::xcb_get_window_attributes(connection_, window);
    const auto classAsked = ::xcb_get_property(connection_, 0, window, XCB_ATOM_WM_CLASS,
                                               XCB_ATOM_STRING, 0, kMostClassWords);
    const auto treeAsked = ::xcb_query_tree(connection_, window);
    const auto geometry = whole(::xcb_get_geometry_reply(connection_, geometryAsked, nullptr));
    const auto attributes =
        whole(::xcb_get_window_attributes_reply(connection_, attributesAsked, nullptr));
    const auto windowClass = whole(::xcb_get_property_reply(connection_, classAsked, nullptr));
    const auto tree = whole(::xcb_query_tree_reply(connection_, treeAsked, nullptr));
    if (!geometry || !attributes || !tree) return false;

    --left_;
    list_->beginDictionary();
    writeNumber(list_, "Window", window);
    writePlace(list_, geometry->x, geometry->y, geometry->width, geometry->height);
    list_->key("Mapped");
    list_->boolean(attributes->map_state != XCB_MAP_STATE_UNMAPPED);
    if (windowClass) writeClass(windowClass.get());
    if (level < kMostLevels) writeChildren(tree.get(), level);
    list_->endDictionary();
    return true;
  }

 private:
  // The name of an instance and that of the class, each with its terminator.
  void writeClass(const xcb_get_property_reply_t* reply) {
    constexpr std::uint8_t kBitsOfText = 8;
    if (reply->format != kBitsOfText) return;
    const auto value = listInReply(reply, static_cast<const char*>(::xcb_get_property_value(reply)),
                                   reply->value_len);
    if (!value) return;
    const std::string_view names(value->data(), value->size());
    const std::size_t end = names.find('\0');
    if (end == std::string_view::npos) return;
    const std::string_view name = names.substr(end + 1);
    list_->key("Class");
    list_->text(name.substr(0, name.find('\0')));
  }

  void writeChildren(const xcb_query_tree_reply_t* tree, int level) {
    const auto children = listInReply(tree, ::xcb_query_tree_children(tree), tree->children_len);
    if (!children || children->empty()) return;
    list_->key("Children");
    list_->beginArray();
    for (const xcb_window_t child : *children)
      (void)write(child, level + 1);
    list_->endArray();
  }

  xcb_connection_t* const connection_;
  PropertyListWriter* const list_;
  int left_ = kMostWindows;
};

}  // namespace

bool writeWindowsOf(const WindowServer& server, const Host& host, PropertyListWriter* list) {
  const Connection connection = connectTo(server, host);
  if (!connection) return false;
  const X11Welcome welcome(*::xcb_get_setup(connection.get()));
  list->beginDictionary();
  list->key("Display");
  list->text(server.display);
  list->key("Vendor");
  list->text({welcome.vendor.data(), welcome.vendor.size()});
  list->key("Screens");
  list->beginArray();
  for (const xcb_screen_t* const screen : welcome.screens) {
    list->beginDictionary();
    writeNumber(list, "Width", screen->width_in_pixels);
    writeNumber(list, "Height", screen->height_in_pixels);
    list->key("Outputs");
    Outputs(connection.get(), list).write(screen->root);
    list->key("Windows");
    list->beginArray();
    (void)Windows(connection.get(), list).write(screen->root);
    list->endArray();
    list->endDictionary();
  }
  list->endArray();
  list->endDictionary();
  return true;
}

}  // namespace quillsift::tools
