#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/linux/DisplayBackend.h"
#include "platform/linux/DrmCard.h"
#include "platform/linux/PlatformTree.h"

namespace quillsift {

// What the kernel's mode setting shows: the CRTCs of all cards that have a mode and a framebuffer.
// Sees the text console and every display server that drives the cards; reads framebuffers whose
// rows lie in memory one after another, which those of display servers on real hardware seldom do.
// Two CRTCs that show the same framebuffer from the same offset mirror each other, whatever
// their sizes.
class KmsDisplays : public DisplayBackend {
 public:
  KmsDisplays(std::shared_ptr<const PlatformTree> tree, OpenDrmCard openCard);

  int list(std::vector<ActiveDisplay>* displays) override;
  std::unique_ptr<ScreenImage> capture(const ActiveDisplay& display) override;

 private:
  const std::shared_ptr<const PlatformTree> tree_;
  const OpenDrmCard openCard_;
};

}  // namespace quillsift
