#pragma once

#include <memory>
#include <optional>
#include <utility>

#include "platform/FileDescriptor.h"
#include "platform/Mutex.h"
#include "platform/QSData.h"
#include "platform/QSError.h"

namespace quillsift {

// The end of a pipe at which a transfer arrives. Any thread.
class PipeReadHandle {
 public:
  virtual ~PipeReadHandle() = default;

  // False once the handle has been closed.
  virtual bool valid() const = 0;
  // Everything up to the end of the transfer, however long that takes; once, on one thread. A clean
  // end without a byte is empty data. None and `error` when reading fails, also because the handle
  // was closed meanwhile (EBADF), because more came than an implementation keeps (EFBIG) or memory
  // ran out (ENOMEM); never throws. Afterwards nobody reads any more: a writer gets EPIPE.
  virtual std::optional<QSData> readToEnd(QSError* error) = 0;
  // Wakes a reader, which still gets what is in the pipe already: that is all, with a clean end, if
  // the write end is closed by then, else the read fails with EBADF. Never waits.
  virtual void close() = 0;
};

// The end of a pipe into which a transfer writes, until the transfer takes it over. Any thread.
class PipeWriteHandle {
 public:
  explicit PipeWriteHandle(FileDescriptor descriptor) : descriptor_(std::move(descriptor)) {}

  // The descriptor, invalid when it has been taken or closed before. The handle counts as closed.
  FileDescriptor take() {
    MutexLock lock(mutex_);
    return std::move(descriptor_);
  }
  void close() { (void)take(); }

 private:
  Mutex mutex_;
  FileDescriptor descriptor_ QS_GUARDED_BY(mutex_);
};

struct Pipe {
  std::shared_ptr<PipeReadHandle> readHandle;
  std::shared_ptr<PipeWriteHandle> writeHandle;
};

}  // namespace quillsift
