#pragma once

namespace quillsift {

// The memory of this process. Any thread.
class ProcessMemory {
 public:
  virtual ~ProcessMemory() = default;

  // Gives what has been freed, and is only kept for the next allocation, back to the host. Takes
  // milliseconds after large amounts.
  virtual void returnFreed() = 0;
};

}  // namespace quillsift
