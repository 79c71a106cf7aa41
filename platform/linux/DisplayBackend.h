#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/Displays.h"

namespace quillsift {

struct ActiveDisplay {
  std::string source;        // whom to ask: a graphics card's device, an X server's socket
  std::uint32_t object = 0;  // what to ask for: number of a CRTC, an output, a console
  bool mirrors = false;      // shows the same as another one
  bool readable = true;      // a capture can succeed, as far as can be told beforehand
};

// One way to ask for the displays of this host. Any thread.
class DisplayBackend {
 public:
  virtual ~DisplayBackend() = default;

  // Fills `displays` with those that show something. 0, or an errno value: ENOSYS where this host
  // has nothing of the kind, else why it could not be asked.
  virtual int list(std::vector<ActiveDisplay>* displays) = 0;
  // The display as it is now. Null when it is gone or cannot be read.
  virtual std::unique_ptr<ScreenImage> capture(const ActiveDisplay& display) = 0;
};

// What a display shows: displays of one source whose places are equal show the same.
template <typename Place>
struct Shown {
  Place place;
  bool isPrimary = false;  // the user's main display
};

// Marks the mirrors. Of those that show the same one is the original: the primary one if it is
// among them, else the first. `shown` says what each display shows, in the same order.
template <typename Place>
void markMirrors(const std::vector<Shown<Place>>& shown, std::vector<ActiveDisplay>* displays) {
  const auto isMirrorOf = [&](std::size_t i, std::size_t j) {
    return i != j && (*displays)[i].source == (*displays)[j].source &&
           shown[i].place == shown[j].place &&
           (shown[j].isPrimary || (j < i && !shown[i].isPrimary));
  };
  for (std::size_t i = 0; i < shown.size(); ++i) {
    for (std::size_t j = 0; j < shown.size() && !(*displays)[i].mirrors; ++j)
      (*displays)[i].mirrors = isMirrorOf(i, j);
  }
}

}  // namespace quillsift
