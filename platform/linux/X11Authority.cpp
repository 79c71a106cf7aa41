#include "platform/linux/X11Authority.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace quillsift {

namespace {

// A field of an authority file: two bytes of length, the high one first, then the bytes.
std::optional<std::string_view> takeField(std::string_view* rest) {
  if (rest->size() < 2) return std::nullopt;
  const auto high = static_cast<std::uint8_t>((*rest)[0]);
  const auto low = static_cast<std::uint8_t>((*rest)[1]);
  const std::size_t length = std::size_t{high} * 256 + low;
  if (rest->size() - 2 < length) return std::nullopt;
  const std::string_view field = rest->substr(2, length);
  rest->remove_prefix(2 + length);
  return field;
}

}  // namespace

std::optional<std::string> authorityFileIn(std::string_view argumentList) {
  bool isNext = false;
  while (!argumentList.empty()) {
    const std::string_view argument = argumentList.substr(0, argumentList.find('\0'));
    if (isNext && argument.starts_with('/')) return std::string(argument);
    isNext = argument == "-auth";
    argumentList.remove_prefix(std::min(argument.size() + 1, argumentList.size()));
  }
  return std::nullopt;
}

std::optional<std::string> magicCookieIn(std::string_view authorityFile) {
  constexpr std::size_t kFamilyLength = 2;
  while (authorityFile.size() > kFamilyLength) {
    authorityFile.remove_prefix(kFamilyLength);
    const auto address = takeField(&authorityFile);
    const auto number = takeField(&authorityFile);
    const auto name = takeField(&authorityFile);
    const auto data = takeField(&authorityFile);
    if (!address || !number || !name || !data) return std::nullopt;
    if (*name == kMagicCookie) return std::string(*data);
  }
  return std::nullopt;
}

}  // namespace quillsift
