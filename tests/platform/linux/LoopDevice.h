#pragma once

#include <sys/types.h>

#include <string>

#include "platform/FileDescriptor.h"

namespace quillsift {

// An image as a block device. The kernel takes the device back by itself when its last user has
// gone, however the test ends.
class LoopDevice {
 public:
  explicit LoopDevice(const std::string& image, bool readOnly = false);

  // False where this process may not have loop devices.
  bool valid() const { return device_.valid(); }
  const std::string& name() const { return name_; }  // "loop7"
  // Makes its node in a /dev that lacks it.
  bool makeNode() const;

 private:
  FileDescriptor device_;
  std::string name_;
  dev_t number_ = 0;
};

}  // namespace quillsift
