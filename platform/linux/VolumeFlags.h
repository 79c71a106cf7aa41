#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace quillsift {

// kMountLocal and kMountRemovable for the volume of an open file, which lies on `device` (0: not
// known). Made here: the kernel's own mount flags mean other things. What is known of a volume is
// asked anew after a second. None with errno set on failure. Any thread.
std::optional<std::uint64_t> volumeFlags(int descriptor, dev_t device);

// Whether files of this type of file system (as fstatfs tells it) may come from another machine or
// from a process, so that their pages may go away or take for ever.
bool isNetworkFileSystem(std::uint64_t type);

// Whether the block device, the disk whose partition it is, or one of those it is made from holds a
// medium that can be taken out. False for what is no block device. `directory` is where the kernel
// lists them by number.
bool isRemovableDevice(dev_t device, const std::string& directory = "/sys/dev/block");

// The same of any of the block devices to which entries of `directory` lead, as the kernel lists
// those of a device mapper or of a file system that has several.
bool holdsRemovableDevice(const std::string& directory);

}  // namespace quillsift
