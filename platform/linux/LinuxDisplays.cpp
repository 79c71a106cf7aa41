#include "platform/linux/LinuxDisplays.h"

#include <algorithm>
#include <cerrno>
#include <optional>

#include "platform/linux/ConsoleDisplay.h"
#include "platform/linux/KmsDisplays.h"
#include "platform/linux/LibdrmCard.h"
#include "platform/linux/X11Displays.h"

namespace quillsift {

LinuxDisplays::LinuxDisplays(Backends backends, std::unique_ptr<DisplayBackend> console)
    : backends_(std::move(backends)), console_(std::move(console)) {}

std::unique_ptr<LinuxDisplays> LinuxDisplays::ofHost(
    const std::shared_ptr<const PlatformTree>& tree) {
  Backends backends;
  backends.push_back(std::make_unique<KmsDisplays>(tree, LibdrmCard::open));
  backends.push_back(std::make_unique<X11Displays>(tree));
  return std::make_unique<LinuxDisplays>(std::move(backends),
                                         std::make_unique<ConsoleDisplay>(tree));
}

int LinuxDisplays::list(Listing* listing) {
  std::optional<Listing> unreadable;
  bool answered = false;
  int error = ENOSYS;
  const auto ask = [&](DisplayBackend& backend) {
    Listing found{.backend = &backend, .displays = {}};
    const int code = backend.list(&found.displays);
    if (code != 0 && error == ENOSYS) error = code;
    if (code != 0) return false;
    answered = true;
    if (found.displays.empty()) return false;
    if (std::ranges::all_of(found.displays, &ActiveDisplay::readable)) {
      *listing = std::move(found);
      return true;
    }
    if (!unreadable) unreadable = std::move(found);
    return false;
  };
  for (const auto& backend : backends_) {
    if (ask(*backend)) return 0;
  }
  if (!answered && ask(*console_)) return 0;
  if (unreadable) *listing = std::move(*unreadable);
  return answered ? 0 : error;
}

int LinuxDisplays::activeDisplays(std::size_t room, std::vector<std::uint32_t>* displays) {
  Listing listing;
  if (const int code = list(&listing); code != 0) return code;
  displays->clear();
  std::map<std::uint32_t, Listed> listed;
  for (ActiveDisplay& display : listing.displays) {
    if (displays->size() == room) break;
    std::uint32_t identifier = display.object;
    while (listed.contains(identifier))
      ++identifier;
    displays->push_back(identifier);
    listed.emplace(identifier, Listed{listing.backend, std::move(display)});
  }
  const MutexLock lock(mutex_);
  listed_ = std::move(listed);
  return 0;
}

std::optional<LinuxDisplays::Listed> LinuxDisplays::find(std::uint32_t display) {
  const MutexLock lock(mutex_);
  const auto found = listed_.find(display);
  if (found == listed_.end()) return std::nullopt;
  return found->second;
}

bool LinuxDisplays::mirrorsAnother(std::uint32_t display) {
  const auto found = find(display);
  return found && found->second.mirrors;
}

std::unique_ptr<ScreenImage> LinuxDisplays::capture(std::uint32_t display) {
  const auto found = find(display);
  return found ? found->first->capture(found->second) : nullptr;
}

}  // namespace quillsift
