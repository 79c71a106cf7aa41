#pragma once

#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "platform/Displays.h"
#include "platform/Mutex.h"
#include "platform/linux/DisplayBackend.h"
#include "platform/linux/PlatformTree.h"

namespace quillsift {

// The displays of the first backend that can read all it lists. Where none can, those of the first
// that lists any, so that the failure is told for each of them. The console is asked only where
// none of the others answers.
//
// An identifier is the number under which the backend's own tools know the display, or one of the
// next where two have the same. It means a display of the latest listing.
class LinuxDisplays : public Displays {
 public:
  using Backends = std::vector<std::unique_ptr<DisplayBackend>>;

  LinuxDisplays(Backends backends, std::unique_ptr<DisplayBackend> console);
  // KMS, X11 and the text console of this host.
  static std::unique_ptr<LinuxDisplays> ofHost(const std::shared_ptr<const PlatformTree>& tree);

  // An error is the first one that does not merely say that there is nothing of the kind.
  int activeDisplays(std::size_t room, std::vector<std::uint32_t>* displays) override;
  bool mirrorsAnother(std::uint32_t display) override;
  std::unique_ptr<ScreenImage> capture(std::uint32_t display) override;

 private:
  struct Listing {
    DisplayBackend* backend = nullptr;
    std::vector<ActiveDisplay> displays;
  };
  using Listed = std::pair<DisplayBackend*, ActiveDisplay>;

  int list(Listing* listing);
  // None for a display that is not of the latest listing.
  std::optional<Listed> find(std::uint32_t display);

  const Backends backends_;
  const std::unique_ptr<DisplayBackend> console_;

  Mutex mutex_;  // never held while a backend is asked
  std::map<std::uint32_t, Listed> listed_ QS_GUARDED_BY(mutex_);
};

}  // namespace quillsift
