#include "daemon/KernelEvents.h"

#include <algorithm>
#include <utility>

#include "daemon/QSServiceDaemon.h"
#include "host/QSGUILauncher.h"
#include "platform/Platform.h"

namespace quillsift {

namespace {

constexpr std::int32_t kStartSession = 55;
constexpr std::size_t kQueueLimit = 5;
constexpr const char* kQueueLabel = "io.vantor.quillsiftd.migqueue";
constexpr FlashParameters kRefusedFlash = {0.5, 0.5, 0.5, 0.5, 1.0, 0.0, 0.0};

bool isKernel(const AuditToken& sender) {
  return std::all_of(sender.begin(), sender.end(), [](std::uint32_t word) { return word == 0; });
}

}  // namespace

KernelEvents::KernelEvents(std::shared_ptr<QSServiceDaemon> daemon) : daemon_(std::move(daemon)) {}

std::int32_t KernelEvents::handleEvent(std::int32_t eventCode, const AuditToken& sender) {
  if (!isKernel(sender)) return kKernelFailure;
  if (eventCode != kStartSession) return kKernelSuccess;
  VisualFlash& display = *Platform::current().visualFlash;
  if (startSession()) {
    display.flash();
  } else {
    display.flash(kRefusedFlash);
  }
  QSGUILauncher::launch();
  return kKernelSuccess;
}

bool KernelEvents::startSession() {
  if (daemon_->currentlyTakingQuillsift()) return false;
  bool refused = false;
  daemon_->takeQuillsift(&refused);
  return !refused;
}

std::unique_ptr<KernelEventPort> KernelEventPort::open(
    const std::shared_ptr<QSServiceDaemon>& daemon, int* code) {
  auto port = Platform::current().kernelMessages->checkIn(kKernelPortName, code);
  if (!port) return nullptr;
  *code = port->setQueueLimit(kQueueLimit);
  if (*code != 0) return nullptr;
  auto queue = Platform::current().workQueues->makeSerialQueue(kQueueLabel, QOSClass::standard);
  const auto events = std::make_shared<KernelEvents>(daemon);
  *code = port->resume(std::move(queue), [events](const KernelMessage& message) {
    return demultiplexKernelMessage(message, *events).reply;
  });
  if (*code != 0) return nullptr;
  return std::unique_ptr<KernelEventPort>(new KernelEventPort(std::move(port)));
}

}  // namespace quillsift
