// A line of the mount table, whose names anybody who may mount has chosen. Input: the line.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/linux/LinuxMounts.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string line(reinterpret_cast<const char*>(data), size);
  const quillsift::MountTableEntry entry = quillsift::LinuxMounts::parseMountInfoLine(line);
  if (entry.mountedFrom.empty() != entry.mountedOn.empty()) std::abort();
  if (entry.mountedFrom.size() + entry.mountedOn.size() > size) std::abort();
  // What follows the source changes nothing.
  if (!entry.mountedFrom.empty()) {
    const auto longer = quillsift::LinuxMounts::parseMountInfoLine(line + " more");
    if (longer.mountedOn != entry.mountedOn || longer.mountedFrom != entry.mountedFrom) {
      std::abort();
    }
  }
  return 0;
}
