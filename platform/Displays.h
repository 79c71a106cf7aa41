#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "platform/QSData.h"

namespace quillsift {

// A captured picture, as the backend holds it.
class ScreenImage {
 public:
  virtual ~ScreenImage() = default;

  // None when the encoder cannot finish.
  virtual std::optional<QSData> encodeAsPNG() = 0;
};

// The host's displays. Any thread. A display server that does not answer is given up after some
// seconds, in each of these.
class Displays {
 public:
  virtual ~Displays() = default;

  // Fills `displays` with at most `room` identifiers of active displays. 0, or an errno value:
  // ENOSYS on a host without any way to ask.
  virtual int activeDisplays(std::size_t room, std::vector<std::uint32_t>* displays) = 0;
  // The two below take an identifier of the latest listing.
  //
  // Whether it shows what another one shows, which is the original of the two.
  virtual bool mirrorsAnother(std::uint32_t display) = 0;
  // Null when the display is gone or cannot be read.
  virtual std::unique_ptr<ScreenImage> capture(std::uint32_t display) = 0;
};

}  // namespace quillsift
