#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/DisplayBackend.h"
#include "platform/linux/PlatformTree.h"

namespace quillsift {

// The outputs of a running X server, found by the sockets in /tmp/.X11-unix: those of the first
// server that has one that is on. A server without the RandR extension counts as one display. Of
// outputs with the same position and size all but one are mirrors: the primary output, else the
// first. The window server of a Wayland compositor lists its outputs too, but has no picture of
// them.
class X11Displays : public DisplayBackend {
 public:
  // How long a server may take for a listing or a capture.
  static constexpr std::chrono::seconds kLimit{5};
  // Anybody can put sockets there.
  static constexpr std::size_t kMostServers = 4;

  explicit X11Displays(std::shared_ptr<const PlatformTree> tree,
                       std::chrono::nanoseconds limit = kLimit);

  int list(std::vector<ActiveDisplay>* displays) override;
  std::unique_ptr<ScreenImage> capture(const ActiveDisplay& display) override;

 private:
  int listServer(const std::string& socket, std::vector<ActiveDisplay>* displays) const;

  const std::shared_ptr<const PlatformTree> tree_;
  const std::chrono::nanoseconds limit_;
};

}  // namespace quillsift
