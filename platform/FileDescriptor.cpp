#include "platform/FileDescriptor.h"

#include <unistd.h>

#include <cerrno>

namespace quillsift {

void FileDescriptor::reset(int descriptor) {
  const int held = std::exchange(descriptor_, descriptor);
  if (held < 0) return;
  const int saved = errno;
  ::close(held);
  errno = saved;
}

}  // namespace quillsift
