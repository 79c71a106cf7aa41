#include "platform/linux/LinuxProcessMemory.h"

#include <malloc.h>

namespace quillsift {

void LinuxProcessMemory::returnFreed() {
  (void)::malloc_trim(0);
}

}  // namespace quillsift
