#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "platform/ServiceConnections.h"
#include "platform/WireValue.h"

struct sd_bus_message;

namespace quillsift {

// Containers inside containers that are written or read, at most: a list of records needs three
// (array, dictionary, variant), and nothing we speak of needs more than twice that.
inline constexpr int kMaximumWireNesting = 8;

// The types of `arguments` one after another, as a message carries them.
std::string busSignature(const std::vector<WireArgument>& arguments);

// Appends one value for each of `arguments`. 0, or a negative errno value: EINVAL when a value has
// not its argument's type or their numbers differ. Text that is not valid UTF-8 is repaired, and
// ends at its first NUL: a message with anything else would cost the peer its connection.
int appendToBusMessage(sd_bus_message* message, const std::vector<WireArgument>& arguments,
                       const std::vector<WireValue>& values);

// Reads one value for each of `arguments` from the start of `message`. 0, or a negative errno
// value, and then `values` is empty: EBADMSG when the message holds anything else, also a variant
// of a type that WireValue does not know. All of the message is compared with the types asked for
// before anything is read, whatever the sender said.
int readFromBusMessage(sd_bus_message* message, const std::vector<WireArgument>& arguments,
                       std::vector<WireValue>* values);

// Bytes of memory that the values occupy, allocations included; never less than their size on the
// wire.
std::size_t heldBytes(const std::vector<WireValue>& values);

}  // namespace quillsift
