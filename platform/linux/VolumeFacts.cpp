#include "platform/linux/VolumeFacts.h"

#include <charconv>
#include <string_view>

namespace quillsift {

namespace {

constexpr std::int16_t kPreboot = 16;
constexpr std::int16_t kUpdate = 192;
constexpr std::int16_t kHardware = 320;

struct Mark {
  std::string_view text;
  std::int16_t role;
};

// A label of ours was given on purpose, so it counts for more than what kind of partition it is.
constexpr Mark kLabels[] = {
    {"QS-PREBOOT", kPreboot}, {"QS-UPDATE", kUpdate}, {"QS-HARDWARE", kHardware}};

// The extended boot loader partition and the EFI system partition, by GUID and by the numbers they
// have in a table of the older kind.
constexpr Mark kPartitionTypes[] = {{"bc13c2ff-59e6-4262-a352-b275fd6f7172", kPreboot},
                                    {"0xea", kPreboot},
                                    {"c12a7328-f81f-11d2-ba4b-00a0c93ec93b", kHardware},
                                    {"0xef", kHardware}};

std::optional<std::int16_t> asNumber(std::string_view text) {
  std::int16_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

}  // namespace

std::optional<std::int16_t> volumeRole(const VolumeFacts& facts) {
  if (const auto given = asNumber(facts.role)) return given;
  for (const Mark& mark : kLabels) {
    if (facts.label == mark.text) return mark.role;
  }
  for (const Mark& mark : kPartitionTypes) {
    if (facts.partitionType == mark.text) return mark.role;
  }
  return std::nullopt;
}

}  // namespace quillsift
