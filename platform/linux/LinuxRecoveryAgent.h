#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "platform/FileDescriptor.h"
#include "platform/Mutex.h"
#include "platform/RecoveryEnvironment.h"
#include "platform/SystemLog.h"
#include "platform/linux/PlatformTree.h"
#include "platform/linux/WakeDescriptor.h"

namespace quillsift {

// Accessories on the USB and Thunderbolt buses, which a host can keep shut until somebody writes to
// the "authorized" file of each. From the first call on a thread watches for new ones: with
// approval they are let in as they come, without it a line in the system log tells of each.
//
// ENOSYS on a machine with neither bus; otherwise the error is that of the first file that could
// not be written, and the others have been.
class LinuxRecoveryAgent : public RecoveryAgent {
 public:
  // Opens the kernel's broadcast of device events; invalid, with errno set, on failure.
  using OpenEvents = std::function<FileDescriptor()>;

  // `log` outlives this.
  LinuxRecoveryAgent(std::shared_ptr<const PlatformTree> tree, SystemLog& log,
                     OpenEvents openEvents);
  ~LinuxRecoveryAgent() override;
  LinuxRecoveryAgent(const LinuxRecoveryAgent&) = delete;
  LinuxRecoveryAgent& operator=(const LinuxRecoveryAgent&) = delete;

  bool enableAutomaticApproval(QSError* error) override;
  bool enableNotifications(QSError* error) override;

 private:
  bool enable(bool approve, QSError* error);
  // Both return 0 or an errno value; `path` (may be null) tells where.
  int approveAll(std::string* path);
  int startWatching() QS_REQUIRES(mutex_);
  void watch();
  void handleNewDevice();

  const std::shared_ptr<const PlatformTree> tree_;
  SystemLog& log_;
  const OpenEvents openEvents_;
  Mutex mutex_;
  bool approves_ QS_GUARDED_BY(mutex_) = false;
  FileDescriptor events_;  // of the watching thread, set before it starts
  const WakeDescriptor stop_;
  std::thread thread_;
};

}  // namespace quillsift
