#include "platform/linux/BusObjects.h"

#include <systemd/sd-bus.h>

#include <deque>
#include <string>
#include <vector>

#include "platform/linux/BusMarshalling.h"

namespace quillsift {

namespace {

// The name that a tool is given when it says Hello, and the one that everything comes from.
constexpr const char* kPeerName = ":1.1";
constexpr const char* kOwnName = ":1.0";
constexpr const char* kMessageBusPath = "/org/freedesktop/DBus";
constexpr const char* kMessageBusInterface = "org.freedesktop.DBus";

int onCall(sd_bus_message* call, void* handler, sd_bus_error* /*error*/) {
  const int result = static_cast<BusCallHandler*>(handler)->handleCall(call);
  return result < 0 ? result : 1;
}

int onHello(sd_bus_message* call, void* /*handler*/, sd_bus_error* /*error*/) {
  return sd_bus_reply_method_return(call, "s", kPeerName);
}

int onGetNameOwner(sd_bus_message* call, void* /*handler*/, sd_bus_error* /*error*/) {
  return sd_bus_reply_method_return(call, "s", kOwnName);
}

// Every peer gets every notification, so there is nothing to match.
int onMatch(sd_bus_message* call, void* /*handler*/, sd_bus_error* /*error*/) {
  return sd_bus_reply_method_return(call, nullptr);
}

const sd_bus_vtable kMessageBusTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES("Hello", "", "", "s", "name\0", onHello, 0),
    SD_BUS_METHOD_WITH_NAMES("AddMatch", "s", "rule\0", "", "", onMatch, 0),
    SD_BUS_METHOD_WITH_NAMES("RemoveMatch", "s", "rule\0", "", "", onMatch, 0),
    SD_BUS_METHOD_WITH_NAMES("GetNameOwner", "s", "name\0", "s", "owner\0", onGetNameOwner, 0),
    SD_BUS_VTABLE_END,
};

}  // namespace

// A table of the library, made at run time, with the texts that it points to.
struct BusObjects::Table {
  enum class Contents { methods, notifications };

  Table(const WireInterface& interface, Contents contents) : name(interface.name) {
    rows.push_back(kMessageBusTable[0]);
    for (const WireMessage& message : interface.messages)
      rows.push_back(contents == Contents::methods ? method(message) : signal(message));
    rows.push_back(SD_BUS_VTABLE_END);
  }

  sd_bus_vtable method(const WireMessage& message) {
    sd_bus_vtable row = kMessageBusTable[1];
    row.x.method.member = keep(message.name);
    row.x.method.signature = keep(busSignature(message.arguments));
    row.x.method.result = keep(busSignature(message.results));
    row.x.method.handler = onCall;
    row.x.method.names = keep(argumentNames(message.arguments) + argumentNames(message.results));
    return row;
  }

  sd_bus_vtable signal(const WireMessage& message) {
    sd_bus_vtable row = SD_BUS_SIGNAL_WITH_NAMES("", "", "", 0);
    row.x.signal.member = keep(message.name);
    row.x.signal.signature = keep(busSignature(message.arguments));
    row.x.signal.names = keep(argumentNames(message.arguments));
    return row;
  }

  // Each name ends with a NUL, the last one like the others.
  static std::string argumentNames(const std::vector<WireArgument>& arguments) {
    std::string names;
    for (const WireArgument& argument : arguments)
      names += argument.name + '\0';
    return names;
  }

  const char* keep(std::string text) { return texts.emplace_back(std::move(text)).c_str(); }

  const std::string name;
  std::deque<std::string> texts;  // a deque never moves what it holds
  std::vector<sd_bus_vtable> rows;
};

BusObjects::BusObjects(const WireInterface& methods, const WireInterface& notifications)
    : methods_(std::make_unique<Table>(methods, Table::Contents::methods)),
      notifications_(std::make_unique<Table>(notifications, Table::Contents::notifications)) {}

BusObjects::~BusObjects() = default;

int BusObjects::addTo(sd_bus* bus, BusCallHandler& handler) const {
  int result = sd_bus_add_object_vtable(bus, nullptr, kMessageBusPath, kMessageBusInterface,
                                        kMessageBusTable, nullptr);
  for (const Table* table : {methods_.get(), notifications_.get()}) {
    if (result < 0) return result;
    result = sd_bus_add_object_vtable(bus, nullptr, kServiceObjectPath, table->name.c_str(),
                                      table->rows.data(), &handler);
  }
  // Without a sender the tools would take our notifications for nobody's.
  return result < 0 ? result : sd_bus_set_sender(bus, kOwnName);
}

}  // namespace quillsift
