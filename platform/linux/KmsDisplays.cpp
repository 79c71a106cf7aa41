#include "platform/linux/KmsDisplays.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "platform/linux/DrmPixelFormat.h"
#include "platform/linux/FaultlessReader.h"
#include "platform/linux/NumberedEntries.h"
#include "platform/linux/PixelImage.h"

namespace quillsift {

namespace {

struct Place {
  std::uint32_t framebuffer, x, y;

  bool operator==(const Place&) const = default;
};

bool isActive(const DrmCrtc& crtc) {
  return crtc.hasMode && crtc.framebuffer != 0 && crtc.width != 0 && crtc.height != 0;
}

// The part of a framebuffer that a CRTC shows, and how to read it.
struct Source {
  DrmFramebuffer framebuffer;
  PixelLayout layout;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::size_t firstPixel = 0;  // its place in the buffer
};

std::optional<Source> sourceOf(DrmCard& card, const DrmCrtc& crtc) {
  const auto framebuffer = card.framebuffer(crtc.framebuffer);
  if (!framebuffer || framebuffer->handle == 0 || !isLinear(*framebuffer)) return std::nullopt;
  const auto layout = pixelLayoutOf(framebuffer->format);
  // A framebuffer smaller than the mode is stretched by the hardware, and taken as it is.
  if (!layout || crtc.x >= framebuffer->width || crtc.y >= framebuffer->height ||
      framebuffer->pitch < std::uint64_t{framebuffer->width} * layout->bytesPerPixel) {
    return std::nullopt;
  }
  const Source source{.framebuffer = *framebuffer,
                      .layout = *layout,
                      .width = std::min(crtc.width, framebuffer->width - crtc.x),
                      .height = std::min(crtc.height, framebuffer->height - crtc.y),
                      .firstPixel = framebuffer->offset + std::size_t{crtc.y} * framebuffer->pitch +
                                    std::size_t{crtc.x} * layout->bytesPerPixel};
  if (!PixelImage::holdsPicture(source.width, source.height)) return std::nullopt;
  return source;
}

std::unique_ptr<ScreenImage> imageOf(const Source& source, DrmMapping mapping) {
  const std::size_t rowLength = std::size_t{source.width} * source.layout.bytesPerPixel;
  const std::size_t pitch = source.framebuffer.pitch;
  const std::size_t needed = source.firstPixel + (source.height - 1) * pitch + rowLength;
  std::shared_ptr<FaultlessReader> reader = FaultlessReader::make(rowLength);
  if (!reader || mapping.bytes.size() < needed) return nullptr;
  return PixelImage::make(
      source.width, source.height, source.layout,
      [mapping = std::move(mapping), reader = std::move(reader), pitch, first = source.firstPixel](
          std::uint32_t row) { return reader->read(mapping.bytes.data() + first + row * pitch); });
}

}  // namespace

KmsDisplays::KmsDisplays(std::shared_ptr<const PlatformTree> tree, OpenDrmCard openCard)
    : tree_(std::move(tree)), openCard_(std::move(openCard)) {}

int KmsDisplays::list(std::vector<ActiveDisplay>* displays) {
  int error = ENOSYS;
  bool answered = false;
  std::vector<Shown<Place>> shown;
  for (const auto& [number, device] :
       numberedEntries(tree_->resolve("/dev/dri").value_or(""), "card")) {
    const auto card = openCard_(device);
    if (!card) {
      if (error == ENOSYS) error = errno;
      continue;
    }
    const auto crtcs = card->crtcs();
    if (!crtcs) continue;
    answered = true;
    for (const DrmCrtc& crtc : *crtcs) {
      if (!isActive(crtc)) continue;
      displays->push_back({.source = device,
                           .object = crtc.identifier,
                           .readable = sourceOf(*card, crtc).has_value()});
      shown.push_back({.place = {crtc.framebuffer, crtc.x, crtc.y}});
    }
  }
  markMirrors(shown, displays);
  return answered ? 0 : error;
}

std::unique_ptr<ScreenImage> KmsDisplays::capture(const ActiveDisplay& display) {
  const auto card = openCard_(display.source);
  if (!card) return nullptr;
  const auto crtcs = card->crtcs().value_or(std::vector<DrmCrtc>());
  const auto crtc = std::ranges::find(crtcs, display.object, &DrmCrtc::identifier);
  if (crtc == crtcs.end() || !isActive(*crtc)) return nullptr;
  const auto source = sourceOf(*card, *crtc);
  if (!source) return nullptr;
  auto mapping = card->map(source->framebuffer);
  return mapping ? imageOf(*source, std::move(*mapping)) : nullptr;
}

}  // namespace quillsift
