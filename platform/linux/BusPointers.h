#pragma once

#include <memory>

struct sd_bus;
struct sd_bus_message;
struct sd_bus_slot;

namespace quillsift {

// A bus object and its messages are used by one thread at a time, also when they are dropped:
// their reference counts are plain numbers.

// Closes the bus without waiting for anything to be written.
struct BusDeleter {
  void operator()(sd_bus* bus) const;
};

struct BusMessageDeleter {
  void operator()(sd_bus_message* message) const;
};

// Ends what the slot stands for: a wait for an answer, a rule of what to hear.
struct BusSlotDeleter {
  void operator()(sd_bus_slot* slot) const;
};

using BusPointer = std::unique_ptr<sd_bus, BusDeleter>;
using BusMessagePointer = std::unique_ptr<sd_bus_message, BusMessageDeleter>;
using BusSlotPointer = std::unique_ptr<sd_bus_slot, BusSlotDeleter>;

}  // namespace quillsift
