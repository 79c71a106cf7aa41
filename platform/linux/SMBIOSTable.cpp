#include "platform/linux/SMBIOSTable.h"

#include <algorithm>
#include <cstddef>

#include "platform/linux/LittleEndian.h"

namespace quillsift {

namespace {

constexpr std::uint8_t kMemoryDevice = 17;
constexpr std::uint8_t kEndOfTable = 127;
constexpr std::size_t kHeaderSize = 4;  // type, length of the formatted part, handle

// Of a memory device: what stands where in the formatted part.
constexpr std::size_t kSizeOffset = 0x0C;
constexpr std::size_t kLocatorOffset = 0x10;
constexpr std::size_t kBankOffset = 0x11;
constexpr std::size_t kManufacturerOffset = 0x17;
constexpr std::size_t kSerialNumberOffset = 0x18;
constexpr std::size_t kPartNumberOffset = 0x1A;
constexpr std::size_t kExtendedSizeOffset = 0x1C;

constexpr std::uint64_t kKilobyte = 1024, kMegabyte = kKilobyte * kKilobyte;

// One structure: its formatted part and the texts behind it. Fields beyond the part's end, which
// older tables do not have, are zero.
class Structure {
 public:
  // Takes the first structure of `rest`, and it off; none when it is not whole.
  static std::optional<Structure> takenFrom(std::string_view* rest) {
    if (rest->size() < kHeaderSize) return std::nullopt;
    const auto length = static_cast<std::uint8_t>((*rest)[1]);
    if (length < kHeaderSize || length > rest->size()) return std::nullopt;
    // The texts, each with its terminator, and one terminator more; two without any text.
    const std::size_t end = rest->find(std::string_view("\0\0", 2), length);
    if (end == std::string_view::npos) return std::nullopt;
    Structure structure(rest->substr(0, length), rest->substr(length, end - length));
    rest->remove_prefix(end + 2);
    return structure;
  }

  std::uint8_t type() const { return byte(0); }
  std::uint8_t byte(std::size_t offset) const {
    return offset < formatted_.size() ? static_cast<std::uint8_t>(formatted_[offset]) : 0;
  }
  std::uint64_t number(std::size_t offset, std::size_t bytes) const {
    return littleEndianNumber(formatted_.substr(std::min(offset, formatted_.size()), bytes));
  }
  // The text whose number, counted from 1, stands at `offset`; trailing blanks are padding.
  std::string text(std::size_t offset) const {
    std::string_view texts = texts_;
    for (std::uint8_t number = byte(offset); number > 0; --number) {
      const std::string_view text = texts.substr(0, texts.find('\0'));
      if (number == 1) return std::string(text.substr(0, text.find_last_not_of(' ') + 1));
      if (text.size() == texts.size()) break;
      texts.remove_prefix(text.size() + 1);
    }
    return "";
  }

 private:
  Structure(std::string_view formatted, std::string_view texts)
      : formatted_(formatted), texts_(texts) {}

  std::string_view formatted_;
  std::string_view texts_;
};

// 0 for an empty slot, none for a size that is not known.
std::optional<std::uint64_t> sizeOf(const Structure& device) {
  constexpr std::uint64_t kUnknown = 0xFFFF, kSeeExtended = 0x7FFF, kInKilobytes = 0x8000;
  const std::uint64_t size = device.number(kSizeOffset, 2);
  if (size == kUnknown) return std::nullopt;
  if (size == kSeeExtended) return (device.number(kExtendedSizeOffset, 4) & 0x7FFFFFFF) * kMegabyte;
  return (size & ~kInKilobytes) * ((size & kInKilobytes) != 0 ? kKilobyte : kMegabyte);
}

}  // namespace

std::vector<MemoryModule> memoryModulesIn(std::string_view table) {
  std::vector<MemoryModule> modules;
  while (const auto structure = Structure::takenFrom(&table)) {
    if (structure->type() == kEndOfTable) break;
    if (structure->type() != kMemoryDevice) continue;
    const auto size = sizeOf(*structure);
    if (size == 0) continue;
    modules.push_back({.locator = structure->text(kLocatorOffset),
                       .bank = structure->text(kBankOffset),
                       .manufacturer = structure->text(kManufacturerOffset),
                       .serialNumber = structure->text(kSerialNumberOffset),
                       .partNumber = structure->text(kPartNumberOffset),
                       .bytes = size});
  }
  return modules;
}

}  // namespace quillsift
