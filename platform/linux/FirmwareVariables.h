#pragma once

#include <chrono>
#include <memory>

#include "platform/DeviceRegistry.h"
#include "platform/ProcessLauncher.h"
#include "platform/linux/PlatformTree.h"

namespace quillsift {

// The vendor GUID under which our firmware variables stand in the EFI variable store.
inline constexpr const char* kFirmwareVariableVendor = "c6050c43-8a6b-4b9d-947f-a689c9d7a9cd";

// The firmware's variables, one property each. On an EFI machine they come as bytes, from efivarfs;
// else from a U-Boot environment as text, where the system is set up to read one (fw_printenv and
// its fw_env.config); the reader is given up after `readerLimit`, since the memory that it reads
// may be dying. Null on a machine with neither. `launcher` outlives the result.
std::unique_ptr<RegistryObject> firmwareVariables(
    const PlatformTree& tree, ProcessLauncher& launcher,
    std::chrono::nanoseconds readerLimit = std::chrono::seconds(10));

}  // namespace quillsift
