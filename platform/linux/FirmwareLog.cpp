#include "platform/linux/FirmwareLog.h"

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "platform/linux/FileReading.h"

namespace quillsift {

namespace {

// Of which the newest part is kept.
constexpr std::size_t kLongestSource = 4 * kMostFirmwareLogBytes;
constexpr const char* kSources[] = {"/sys/firmware/log", "/sys/firmware/efi/ovmf_debug_log",
                                    "/sys/firmware/opal/msglog"};
constexpr std::string_view kMagic = "POSL";
constexpr std::size_t kHeaderSize = 14;

// 32 bits, little-endian, as everything in the header.
void appendNumber(std::size_t number, std::string* bytes) {
  for (int shift = 0; shift < 32; shift += 8)
    *bytes += static_cast<char>(number >> shift);
}

std::string asRing(std::string_view log) {
  std::string ring;
  ring.reserve(kHeaderSize + log.size());
  ring = kMagic;
  appendNumber(kHeaderSize + log.size(), &ring);
  appendNumber(log.size() - 1, &ring);  // where the last byte was written
  ring.append(2, '\0');                 // a byte that says nothing; not wrapped
  ring += log;
  return ring;
}

}  // namespace

std::optional<std::string> firmwareLogRing(const PlatformTree& tree) {
  for (const char* source : kSources) {
    const auto path = tree.resolve(source);
    const auto content = path ? readSmallFile(*path, kLongestSource) : std::nullopt;
    if (!content) continue;
    std::string_view log = content->text();
    log = log.substr(0, log.find_last_not_of('\0') + 1);
    if (log.empty()) continue;
    return asRing(log.substr(log.size() - std::min(log.size(), kMostFirmwareLogBytes)));
  }
  return std::nullopt;
}

}  // namespace quillsift
