#pragma once

#include <memory>

#include "platform/Mutex.h"
#include "platform/RemoteMessages.h"
#include "platform/linux/WakeDescriptor.h"

namespace quillsift {

// A descriptor that a remote device has passed. What it names is the device's choice and may be a
// pipe, a stream socket or a regular file; a directory is EISDIR, everything else EINVAL. Nothing
// the device does afterwards keeps a transfer beyond `cancelled`, a regular file on a file system
// that hangs excepted: that costs a thread, and nobody waits for it.
class LinuxFileTransfer : public RemoteFileTransfer {
 public:
  LinuxFileTransfer(FileDescriptor source, std::shared_ptr<const WakeDescriptor> cancelled);

  // `destination` must not block.
  void writeTo(FileDescriptor destination, Completion completion) override;

 private:
  const std::shared_ptr<const WakeDescriptor> cancelled_;
  Mutex mutex_;
  FileDescriptor source_ QS_GUARDED_BY(mutex_);
};

}  // namespace quillsift
