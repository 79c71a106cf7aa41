#pragma once

#include <cstddef>

#include "platform/SystemValue.h"

struct sd_bus_message;

namespace quillsift {

// What a device may say about itself, all of it taken together. Ours would say a hundredth of it.
inline constexpr std::size_t kMostPropertyParts = 8192;  // names, values, and the texts among these
inline constexpr std::size_t kMostPropertyBytes = std::size_t{1} << 20;  // of names, texts and data
inline constexpr int kDeepestProperty = 8;                               // containers in containers

// Reads the a{sv} at the start of `message`. Numbers, texts, bytes (ay), arrays and dictionaries by
// text become what they are; a value of another type is there, but is nothing. 0, or a negative
// errno value, and then `properties` holds whatever was read before: EMSGSIZE for more than the
// limits above.
int readRemoteProperties(sd_bus_message* message, SystemValue::Dictionary* properties);

}  // namespace quillsift
