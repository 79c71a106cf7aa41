#include "platform/linux/BusPointers.h"

#include <systemd/sd-bus.h>

namespace quillsift {

void BusDeleter::operator()(sd_bus* bus) const {
  sd_bus_close(bus);
  sd_bus_unref(bus);
}

void BusMessageDeleter::operator()(sd_bus_message* message) const {
  sd_bus_message_unref(message);
}

void BusSlotDeleter::operator()(sd_bus_slot* slot) const {
  sd_bus_slot_unref(slot);
}

}  // namespace quillsift
