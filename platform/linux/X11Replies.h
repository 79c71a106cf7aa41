#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

struct xcb_format_t;
struct xcb_screen_t;
struct xcb_setup_t;
struct xcb_visualtype_t;

namespace quillsift {

// What an X server has sent, held against its length. The library reads as many bytes as a reply's
// header announces, and then believes every count in them: its accessors lead out of the reply of a
// server that lies, and its iterators out of such a server's welcome.

// The bytes that a reply has, its header included.
std::size_t lengthOfReply(const void* reply);

// Whether the reply has all the fields that its type has.
template <typename Reply>
bool isWholeReply(const Reply& reply) {
  return lengthOfReply(&reply) >= sizeof(Reply);
}

// `count` elements from `first` on; none when they are not all within the bytes from `begin` on.
template <typename Element>
std::optional<std::span<const Element>> elementsWithin(std::span<const std::byte> bytes,
                                                       const Element* first, std::size_t count) {
  const auto begin = reinterpret_cast<std::uintptr_t>(bytes.data());
  const auto place = reinterpret_cast<std::uintptr_t>(first);
  if (place < begin || place - begin > bytes.size()) return std::nullopt;
  if (count > (bytes.size() - (place - begin)) / sizeof(Element)) return std::nullopt;
  return std::span(first, count);
}

// A list in a reply: the elements that the library's accessor points to, as many as the reply
// claims. None when they are not all in the reply.
template <typename Element>
std::optional<std::span<const Element>> listInReply(const void* reply, const Element* first,
                                                    std::size_t count) {
  return elementsWithin({static_cast<const std::byte*>(reply), lengthOfReply(reply)}, first, count);
}

// A server's welcome, taken apart. What does not fit into it is left out, and so is all behind
// that.
struct X11Welcome {
  explicit X11Welcome(const xcb_setup_t& setup);

  std::span<const char> vendor = {};
  std::span<const xcb_format_t> formats = {};
  std::vector<const xcb_screen_t*> screens = {};
  std::vector<const xcb_visualtype_t*> visuals = {};  // of all screens
};

}  // namespace quillsift
