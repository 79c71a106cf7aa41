#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillsift {

// A memory module, as the firmware's SMBIOS table describes it. An empty text was not given.
struct MemoryModule {
  std::string locator;  // the slot
  std::string bank;
  std::string manufacturer;
  std::string serialNumber;
  std::string partNumber;
  std::optional<std::uint64_t> bytes;  // none: not known
};

// The modules of a table as the kernel has it (/sys/firmware/dmi/tables/DMI), empty slots left out.
// Stops where the table is damaged.
std::vector<MemoryModule> memoryModulesIn(std::string_view table);

}  // namespace quillsift
