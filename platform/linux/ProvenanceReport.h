#pragma once

#include <optional>

#include "platform/SystemValue.h"
#include "platform/linux/PlatformTree.h"

namespace quillsift {

// The machine's factory data: what the kernel's files say of model, serial numbers and parts. A
// dictionary with those of these entries for which there is anything:
//   DMI                 dictionary of /sys/class/dmi/id, by file name
//   VitalProductData    dictionary of /sys/firmware/vpd/ro, by file name
//   DeviceTree          model and serial-number of /sys/firmware/devicetree/base
//   BlockDevices        dictionary by disk: model, serial, firmware, identifiers
//   NetworkInterfaces   dictionary by interface: permanent address
//   MemoryModules       array of dictionaries: slot, size, manufacturer, serial and part number
// Values are texts, or data where the bytes are no text. None when nothing at all is known.
std::optional<SystemValue> provenanceReport(const PlatformTree& tree);

}  // namespace quillsift
