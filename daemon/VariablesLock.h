#pragma once

#include <memory>

#include "platform/Mutex.h"
#include "platform/WorkQueues.h"

namespace quillsift {

// The lock over the session variables. Not recursive; waiting for it blocks, since the autosave
// may hold it for minutes.
//
// Two rules keep the daemon from locking itself up, and both are checked at every call, because a
// broken one would hang the daemon with everything it has gathered:
// - it is never taken on the service queue or on a queue that targets it: a holder broadcasts
//   there synchronously;
// - who holds it never blocks on the save lock (SaveLock checks heldByThisThread).
class QS_CAPABILITY("mutex") VariablesLock {
 public:
  explicit VariablesLock(std::shared_ptr<SerialQueue> serviceQueue);

  void lock() QS_ACQUIRE();
  void unlock() QS_RELEASE();

  static bool heldByThisThread();

 private:
  const std::shared_ptr<SerialQueue> serviceQueue_;
  Mutex mutex_;
};

using VariablesLockHolder = ScopedLock<VariablesLock>;

}  // namespace quillsift
