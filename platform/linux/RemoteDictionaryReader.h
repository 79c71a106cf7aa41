#pragma once

#include <memory>

#include "platform/RemoteMessages.h"
#include "platform/linux/WakeDescriptor.h"

struct sd_bus_message;

namespace quillsift {

// Reads the a{sv} at the start of `message`. Its files end with `transfersEnd`. 0, or a negative
// errno value when the message is malformed, holds more than 256 keys or 64 KiB of text (EMSGSIZE),
// or a descriptor could not be kept.
int readRemoteDictionary(sd_bus_message* message,
                         const std::shared_ptr<const WakeDescriptor>& transfersEnd,
                         RemoteDictionary* dictionary);

}  // namespace quillsift
