#include "platform/Platform.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace quillsift {

namespace {

// Leaked on purpose at process end: threads may still be using it while the process dies.
Platform* installed = nullptr;

}  // namespace

Platform& Platform::current() {
  if (installed == nullptr) {
    std::fputs("quillsift: no platform is installed\n", stderr);
    std::abort();
  }
  return *installed;
}

std::unique_ptr<Platform> Platform::install(std::unique_ptr<Platform> platform) {
  return std::unique_ptr<Platform>(std::exchange(installed, platform.release()));
}

}  // namespace quillsift
