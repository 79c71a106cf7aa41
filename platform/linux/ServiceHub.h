#pragma once

#include <cstddef>
#include <map>
#include <memory>

#include "platform/linux/OutgoingBudget.h"
#include "platform/linux/ServiceConnectionSettings.h"
#include "platform/linux/ServiceThread.h"

namespace quillsift {

class LinuxServiceConnection;

// What all connections of this process share. The thread is the owner's to stop.
class ServiceHub : public std::enable_shared_from_this<ServiceHub> {
 public:
  explicit ServiceHub(ServiceConnectionSettings settings);

  const ServiceConnectionSettings& settings() const { return settings_; }
  ServiceThread& thread() { return thread_; }
  const std::shared_ptr<OutgoingBudget>& budget() const { return budget_; }

  // The three below on the service thread only.
  // False when there are as many connections as the limit allows.
  bool add(const std::shared_ptr<LinuxServiceConnection>& connection);
  void remove(const LinuxServiceConnection& connection);
  // Ends every connection.
  void closeAll();

 private:
  const ServiceConnectionSettings settings_;
  const std::shared_ptr<OutgoingBudget> budget_;
  std::map<const LinuxServiceConnection*, std::weak_ptr<LinuxServiceConnection>> connections_;
  ServiceThread thread_;
};

}  // namespace quillsift
