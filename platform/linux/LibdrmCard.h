#pragma once

#include "platform/FileDescriptor.h"
#include "platform/linux/DrmCard.h"

namespace quillsift {

// A card asked over libdrm. The buffers of others are given to CAP_SYS_ADMIN only.
class LibdrmCard : public DrmCard {
 public:
  static std::unique_ptr<DrmCard> open(const std::string& device);
  explicit LibdrmCard(FileDescriptor device) : device_(std::move(device)) {}

  std::optional<std::vector<DrmCrtc>> crtcs() override;
  std::optional<DrmFramebuffer> framebuffer(std::uint32_t identifier) override;
  std::optional<DrmMapping> map(const DrmFramebuffer& framebuffer) override;

 private:
  const FileDescriptor device_;  // closing it lets go of the buffer handles too
};

}  // namespace quillsift
