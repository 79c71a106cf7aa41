#pragma once

#include <memory>
#include <vector>

#include "platform/linux/DisplayBackend.h"
#include "platform/linux/PlatformTree.h"

namespace quillsift {

// The text console in the foreground, from the kernel's /dev/vcsa and /dev/vcsu.
class ConsoleDisplay : public DisplayBackend {
 public:
  explicit ConsoleDisplay(std::shared_ptr<const PlatformTree> tree);

  // One display, whose number is 0: the console devices' own for the one in the foreground.
  int list(std::vector<ActiveDisplay>* displays) override;
  std::unique_ptr<ScreenImage> capture(const ActiveDisplay& display) override;

 private:
  const std::shared_ptr<const PlatformTree> tree_;
};

}  // namespace quillsift
