#include "tests/platform/linux/VolumeImage.h"

namespace quillsift {

namespace {

constexpr std::size_t kImageSize = 65536;
constexpr std::size_t kSuperblock = 1024;

}  // namespace

std::string extVolumeImage(const std::string& uuid, const std::string& label) {
  std::string image(kImageSize, '\0');
  image.replace(kSuperblock + 4, 1, "\x40");       // 64 blocks
  image.replace(kSuperblock + 56, 2, "\x53\xEF");  // the magic number
  image.replace(kSuperblock + 76, 1, "\x01");      // the revision that has a UUID
  image.replace(kSuperblock + 104, uuid.size(), uuid);
  image.replace(kSuperblock + 120, label.size(), label);
  return image;
}

}  // namespace quillsift
