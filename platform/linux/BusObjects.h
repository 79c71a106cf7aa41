#pragma once

#include <memory>

#include "platform/ServiceConnections.h"

struct sd_bus;
struct sd_bus_message;

namespace quillsift {

// The object that a service exports to its peers, and that they call.
inline constexpr const char* kServiceObjectPath = "/io/vantor/quillsiftd";

// Receives the calls of a bus peer, on the thread that serves it.
class BusCallHandler {
 public:
  virtual ~BusCallHandler() = default;

  // One call of a method of the exported interface, its signature already compared. 0 when it is
  // taken; a negative errno value is answered with an error.
  virtual int handleCall(sd_bus_message* call) = 0;
};

// The objects that each peer sees, built from the two interfaces of a connection: the service's
// own, described with the names of all arguments, and as much of a message bus's own object as the
// tools that cannot speak without one ask for (Hello, AddMatch, RemoveMatch, GetNameOwner).
class BusObjects {
 public:
  // Both interfaces are copied.
  BusObjects(const WireInterface& methods, const WireInterface& notifications);
  ~BusObjects();
  BusObjects(const BusObjects&) = delete;
  BusObjects& operator=(const BusObjects&) = delete;

  // 0 or a negative errno value. These objects and `handler` must outlive the bus.
  int addTo(sd_bus* bus, BusCallHandler& handler) const;

 private:
  struct Table;

  const std::unique_ptr<const Table> methods_;
  const std::unique_ptr<const Table> notifications_;
};

}  // namespace quillsift
