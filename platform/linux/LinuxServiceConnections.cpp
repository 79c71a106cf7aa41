#include "platform/linux/LinuxServiceConnections.h"

#include <utility>

#include "platform/linux/LinuxServiceListener.h"
#include "platform/linux/LinuxWorkQueues.h"
#include "platform/linux/ServiceHub.h"

namespace quillsift {

LinuxServiceConnections::LinuxServiceConnections(LinuxWorkQueues& workQueues,
                                                 std::optional<std::string> socketPath,
                                                 ServiceConnectionSettings settings)
    : workQueues_(workQueues),
      socketPath_(std::move(socketPath)),
      hub_(std::make_shared<ServiceHub>(std::move(settings))) {}

LinuxServiceConnections::~LinuxServiceConnections() {
  hub_->thread().stop();
}

std::unique_ptr<ServiceListener> LinuxServiceConnections::makeListener(
    const std::string& serviceName) {
  return std::make_unique<LinuxServiceListener>(
      hub_, serviceName, socketPath_.value_or("/run/" + serviceName + "/socket"));
}

std::shared_ptr<SerialQueue> LinuxServiceConnections::makeQueue(const std::string& label,
                                                                QOSClass qos) {
  return workQueues_.makeSerialQueueOn(
      [hub = hub_](const Task& task) { return hub->thread().postIfRunning(task); }, label, qos);
}

}  // namespace quillsift
