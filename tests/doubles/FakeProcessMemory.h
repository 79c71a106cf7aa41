#pragma once

#include <functional>

#include "platform/ProcessMemory.h"

namespace quillsift {

// Tells when memory is given back.
class FakeProcessMemory : public ProcessMemory {
 public:
  void returnFreed() override {
    if (onReturn) onReturn();
  }

  std::function<void()> onReturn;  // set before anybody else is running
};

}  // namespace quillsift
