#include "tools/FirmwareVariables.h"

#include <cerrno>

#include "tools/Files.h"

namespace quillsift::tools {

namespace {

constexpr std::size_t kGUIDLength = 36;
constexpr std::size_t kAttributesLength = 4;
constexpr std::size_t kLongestVariable = std::size_t{1024} * 1024;

}  // namespace

std::optional<std::vector<FirmwareVariable>> firmwareVariables(const Host& host,
                                                               int* notPermitted) {
  if (notPermitted != nullptr) *notPermitted = 0;
  const auto directory = host.resolved("/sys/firmware/efi/efivars");
  if (!directory) {
    errno = ENOENT;
    return std::nullopt;
  }
  const auto names = namesIn(*directory);
  if (!names) return std::nullopt;
  std::vector<FirmwareVariable> variables;
  for (const std::string& file : *names) {
    // "name-GUID"
    if (file.size() < kGUIDLength + 2 || file[file.size() - kGUIDLength - 1] != '-') continue;
    const auto bytes = readFile(pathIn(*directory, file), kLongestVariable);
    if (!bytes && notPermitted != nullptr && (errno == EACCES || errno == EPERM)) ++*notPermitted;
    if (!bytes || bytes->size() < kAttributesLength) continue;
    variables.push_back({file.substr(file.size() - kGUIDLength),
                         file.substr(0, file.size() - kGUIDLength - 1),
                         bytes->substr(kAttributesLength)});
  }
  return variables;
}

std::string percentEscaped(std::string_view bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const char character : bytes) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte >= 32 && byte <= 126 && byte != '%') {
      text += character;
    } else {
      text += '%';
      text += kDigits[byte >> 4];
      text += kDigits[byte & 0xF];
    }
  }
  return text;
}

}  // namespace quillsift::tools
