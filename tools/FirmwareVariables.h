#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/Host.h"

namespace quillsift::tools {

// The vendor under which our own variables stand: they go by their bare names.
inline constexpr std::string_view kOwnFirmwareVendor = "c6050c43-8a6b-4b9d-947f-a689c9d7a9cd";

struct FirmwareVariable {
  std::string vendor;  // the GUID, as in the file's name
  std::string name;
  std::string value;  // without the attributes in front of it
};

// The variables in the firmware's store, sorted by name, from the platform tree's or the machine's
// /sys/firmware/efi/efivars. None with errno when there is no such store or it may not be read.
// Variables that cannot be read are left out; `notPermitted`, if not null, is how many of them this
// user may not read.
std::optional<std::vector<FirmwareVariable>> firmwareVariables(const Host& host,
                                                               int* notPermitted = nullptr);

// `bytes` with those outside 32-126, and "%", as %xx.
std::string percentEscaped(std::string_view bytes);

}  // namespace quillsift::tools
