#pragma once

#include "platform/ProcessMemory.h"

namespace quillsift {

// The heap of the C library, which keeps the pages of many small results otherwise.
class LinuxProcessMemory : public ProcessMemory {
 public:
  void returnFreed() override;
};

}  // namespace quillsift
