#pragma once

#include <cstddef>

#include "platform/Mutex.h"

namespace quillsift {

// Held for the whole of a save. It has no owner: a save may be begun on one thread and its lock be
// given back on another, so this is a binary semaphore and not a mutex.
//
// Nobody blocks here while holding the variables lock (checked): a save needs that lock to copy the
// job list, and the two would wait for each other.
class SaveLock {
 public:
  // Waits until no save holds it, then takes it.
  void lock();
  [[nodiscard]] bool try_lock();
  void unlock();
  // Waits until no save holds it, without taking it: a waiter never makes others see a save.
  void waitUntilFree();
  bool isHeld() const;
  // How many threads wait at the moment, in lock or in waitUntilFree.
  std::size_t waiters() const;

 private:
  void waitWhileHeld() QS_REQUIRES(mutex_);

  mutable Mutex mutex_;
  ConditionVariable freed_;
  bool held_ QS_GUARDED_BY(mutex_) = false;
  std::size_t waiters_ QS_GUARDED_BY(mutex_) = 0;
};

}  // namespace quillsift
