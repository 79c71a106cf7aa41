#pragma once

#include <latch>

namespace quillsift {

// Shut until it is opened, once.
class Gate {
 public:
  void open() { latch_.count_down(); }
  void pass() const { latch_.wait(); }
  bool isOpen() const { return latch_.try_wait(); }

 private:
  std::latch latch_{1};
};

}  // namespace quillsift
