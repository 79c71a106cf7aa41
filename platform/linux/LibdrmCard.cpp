#include "platform/linux/LibdrmCard.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <xf86drm.h>
#include <xf86drmMode.h>

#include <cerrno>

namespace quillsift {

namespace {

std::optional<DrmMapping> mapped(int descriptor, off_t offset, std::size_t length) {
  void* const address = ::mmap(nullptr, length, PROT_READ, MAP_SHARED, descriptor, offset);
  if (address == MAP_FAILED) return std::nullopt;
  std::shared_ptr<const void> owner(
      address, [length](const void* bytes) { ::munmap(const_cast<void*>(bytes), length); });
  return DrmMapping{std::move(owner), {static_cast<const std::byte*>(address), length}};
}

// The way of buffers made for the processor to draw in, as the text console's is.
std::optional<DrmMapping> mapAsDumbBuffer(int card, std::uint32_t handle, std::size_t length) {
  drm_mode_map_dumb request{};
  request.handle = handle;
  if (::drmIoctl(card, DRM_IOCTL_MODE_MAP_DUMB, &request) != 0) return std::nullopt;
  return mapped(card, static_cast<off_t>(request.offset), length);
}

std::optional<DrmMapping> mapAsSharedBuffer(int card, std::uint32_t handle, std::size_t length) {
  int descriptor = -1;
  if (::drmPrimeHandleToFD(card, handle, DRM_CLOEXEC, &descriptor) != 0) return std::nullopt;
  const FileDescriptor buffer(descriptor);
  return mapped(buffer.get(), 0, length);
}

}  // namespace

std::unique_ptr<DrmCard> LibdrmCard::open(const std::string& device) {
  int descriptor = -1;
  do {
    descriptor = ::open(device.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
  } while (descriptor < 0 && errno == EINTR);
  if (descriptor < 0) return nullptr;
  // Whoever opens a card that nobody drives becomes its master, and keeps display servers out.
  (void)::drmDropMaster(descriptor);
  return std::make_unique<LibdrmCard>(FileDescriptor(descriptor));
}

std::optional<std::vector<DrmCrtc>> LibdrmCard::crtcs() {
  const std::unique_ptr<drmModeRes, decltype(&drmModeFreeResources)> resources(
      ::drmModeGetResources(device_.get()), drmModeFreeResources);
  if (!resources) return std::nullopt;
  std::vector<DrmCrtc> crtcs;
  for (int i = 0; i < resources->count_crtcs; ++i) {
    const std::unique_ptr<drmModeCrtc, decltype(&drmModeFreeCrtc)> crtc(
        ::drmModeGetCrtc(device_.get(), resources->crtcs[i]), drmModeFreeCrtc);
    if (!crtc) continue;
    crtcs.push_back({.identifier = crtc->crtc_id,
                     .hasMode = crtc->mode_valid != 0,
                     .framebuffer = crtc->buffer_id,
                     .x = crtc->x,
                     .y = crtc->y,
                     .width = crtc->width,
                     .height = crtc->height});
  }
  return crtcs;
}

std::optional<DrmFramebuffer> LibdrmCard::framebuffer(std::uint32_t identifier) {
  const std::unique_ptr<drmModeFB2, decltype(&drmModeFreeFB2)> found(
      ::drmModeGetFB2(device_.get(), identifier), drmModeFreeFB2);
  if (!found) return std::nullopt;
  DrmFramebuffer framebuffer{.width = found->width,
                             .height = found->height,
                             .format = found->pixel_format,
                             .modifier = std::nullopt,
                             .handle = found->handles[0],
                             .pitch = found->pitches[0],
                             .offset = found->offsets[0]};
  if ((found->flags & DRM_MODE_FB_MODIFIERS) != 0) framebuffer.modifier = found->modifier;
  return framebuffer;
}

std::optional<DrmMapping> LibdrmCard::map(const DrmFramebuffer& framebuffer) {
  if (framebuffer.handle == 0) return std::nullopt;
  const std::size_t length =
      framebuffer.offset + std::size_t{framebuffer.pitch} * framebuffer.height;
  auto mapping = mapAsDumbBuffer(device_.get(), framebuffer.handle, length);
  if (!mapping) mapping = mapAsSharedBuffer(device_.get(), framebuffer.handle, length);
  return mapping;
}

}  // namespace quillsift
