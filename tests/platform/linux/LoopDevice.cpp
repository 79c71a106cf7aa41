#include "tests/platform/linux/LoopDevice.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>

namespace quillsift {

namespace {

constexpr unsigned kLoopMajor = 7;
constexpr int kMostAttempts = 50;  // somebody else may take the free one first

}  // namespace

LoopDevice::LoopDevice(const std::string& image, bool readOnly) {
  const int access = readOnly ? O_RDONLY : O_RDWR;
  const FileDescriptor control(::open("/dev/loop-control", O_RDWR | O_CLOEXEC));
  const FileDescriptor file(::open(image.c_str(), access | O_CLOEXEC));
  if (!control.valid() || !file.valid()) return;
  loop_config configuration{};
  configuration.fd = static_cast<__u32>(file.get());
  configuration.info.lo_flags = LO_FLAGS_AUTOCLEAR | (readOnly ? LO_FLAGS_READ_ONLY : 0);
  for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
    const int number = ::ioctl(control.get(), LOOP_CTL_GET_FREE);
    if (number < 0) return;
    const std::string name = "loop" + std::to_string(number);
    FileDescriptor device(::open(("/dev/" + name).c_str(), access | O_CLOEXEC));
    if (!device.valid()) return;
    if (::ioctl(device.get(), LOOP_CONFIGURE, &configuration) == 0) {
      device_ = std::move(device);
      name_ = name;
      number_ = ::makedev(kLoopMajor, static_cast<unsigned>(number));
      return;
    }
    if (errno != EBUSY) return;
  }
}

bool LoopDevice::makeNode() const {
  return ::mknod(("/dev/" + name_).c_str(), S_IFBLK | 0600, number_) == 0;
}

}  // namespace quillsift
