// The text of a kernel event. Input: the text.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/linux/KernelEventSocket.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto code = quillsift::eventCodeIn(text);
  // A code is not made of nothing.
  if (code && text.find("QSEVENT=") == std::string_view::npos) std::abort();
  const auto value = quillsift::valueInEvent(text, "SUBSYSTEM");
  if (value && value->find('\0') != std::string_view::npos) std::abort();
  return 0;
}
