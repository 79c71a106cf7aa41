#pragma once

#include <chrono>
#include <memory>
#include <string_view>

#include "platform/FileDescriptor.h"
#include "platform/VisualFlash.h"
#include "platform/linux/PlatformTree.h"

namespace quillsift {

// Inverts the virtual terminal in the foreground: once and long by default, twice and short with
// parameters, whatever they are. Not seen while a graphical server owns the display.
class LinuxVisualFlash : public VisualFlash {
 public:
  struct Timing {
    std::chrono::milliseconds longFlash{600};
    std::chrono::milliseconds shortFlash{150};  // also the pause between two of them
  };

  explicit LinuxVisualFlash(std::shared_ptr<const PlatformTree> tree);
  LinuxVisualFlash(std::shared_ptr<const PlatformTree> tree, Timing timing);

  void flash() override;
  void flash(const FlashParameters& parameters) override;

 private:
  FileDescriptor openTerminal() const;
  // False when the terminal takes nothing.
  static bool invertFor(int terminal, std::chrono::milliseconds time);

  const std::shared_ptr<const PlatformTree> tree_;
  const Timing timing_;
};

}  // namespace quillsift
