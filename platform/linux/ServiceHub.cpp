#include "platform/linux/ServiceHub.h"

#include <utility>

#include "platform/linux/LinuxServiceConnection.h"

namespace quillsift {

ServiceHub::ServiceHub(ServiceConnectionSettings settings)
    : settings_(std::move(settings)),
      budget_(std::make_shared<OutgoingBudget>(settings_.limits.queuedForOne,
                                               settings_.limits.queuedForAll)) {
  thread_.atStop([this] { closeAll(); });  // after every listener, so nobody comes after it
}

bool ServiceHub::add(const std::shared_ptr<LinuxServiceConnection>& connection) {
  if (connections_.size() >= settings_.limits.connections) return false;
  connections_.emplace(connection.get(), connection);
  return true;
}

void ServiceHub::remove(const LinuxServiceConnection& connection) {
  connections_.erase(&connection);
}

void ServiceHub::closeAll() {
  // Ending a connection takes it out of the map.
  const auto connections = std::exchange(connections_, {});
  for (const auto& [pointer, weak] : connections) {
    if (const auto connection = weak.lock()) connection->end();
  }
}

}  // namespace quillsift
