#include "tools/ProgramStart.h"

#include <sys/auxv.h>
#include <unistd.h>

#include <climits>

namespace quillsift::tools {

std::string executableFile() {
  char path[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
  return length < 0 ? "" : std::string(path, static_cast<std::size_t>(length));
}

std::string startedPath() {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the kernel passes the address as a number
  const auto* path = reinterpret_cast<const char*>(::getauxval(AT_EXECFN));
  return path == nullptr ? "" : path;
}

}  // namespace quillsift::tools
