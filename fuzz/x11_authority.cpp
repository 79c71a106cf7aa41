// The arguments of an X server and its authority file. Input: either.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/linux/X11Authority.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const auto file = quillsift::authorityFileIn(input);
  if (file && (!file->starts_with('/') || file->find('\0') != std::string::npos ||
               input.find(std::string("-auth\0", 6) + *file) == std::string_view::npos)) {
    std::abort();
  }
  const auto cookie = quillsift::magicCookieIn(input);
  if (cookie && input.find(*cookie) == std::string_view::npos) std::abort();
  // An entry of another kind before all others changes nothing.
  const std::string another(
      "\0\1\0\4host\0\1"
      "0\0\5other\0\3abc",
      23);
  if (quillsift::magicCookieIn(another + std::string(input)) != cookie) std::abort();
  return 0;
}
