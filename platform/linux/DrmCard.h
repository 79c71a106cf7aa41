#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace quillsift {

// What scans a framebuffer out to a display.
struct DrmCrtc {
  std::uint32_t identifier = 0;
  bool hasMode = false;
  std::uint32_t framebuffer = 0;  // 0: none
  std::uint32_t x = 0;            // of the part of the framebuffer that it shows
  std::uint32_t y = 0;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
};

struct DrmFramebuffer {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t format = 0;               // a four-character code
  std::optional<std::uint64_t> modifier;  // how the pixels are arranged; none: nothing said
  std::uint32_t handle = 0;               // of the buffer; 0 for those who may not have it
  std::uint32_t pitch = 0;                // bytes a row
  std::uint32_t offset = 0;               // of the first row in the buffer
};

// Bytes that `owner` keeps mapped. The device may change them, and take them away: then a read
// raises SIGBUS.
struct DrmMapping {
  std::shared_ptr<const void> owner;
  std::span<const std::byte> bytes;
};

// A graphics card, opened for a look. One thread at a time.
class DrmCard {
 public:
  virtual ~DrmCard() = default;

  // None when the card drives no displays.
  virtual std::optional<std::vector<DrmCrtc>> crtcs() = 0;
  // None when it is gone or not to be seen.
  virtual std::optional<DrmFramebuffer> framebuffer(std::uint32_t identifier) = 0;
  // The buffer from its beginning to the end of the last row. None when it cannot be mapped. Stays
  // when the card is closed.
  virtual std::optional<DrmMapping> map(const DrmFramebuffer& framebuffer) = 0;
};

// Null with errno set when the device cannot be opened.
using OpenDrmCard = std::function<std::unique_ptr<DrmCard>(const std::string& device)>;

}  // namespace quillsift
