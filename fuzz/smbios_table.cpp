// The memory modules in the firmware's table. Input: the table.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/linux/SMBIOSTable.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view table(reinterpret_cast<const char*>(data), size);
  // A structure has six bytes at least.
  if (quillsift::memoryModulesIn(table).size() > size / 6) std::abort();
  return 0;
}
