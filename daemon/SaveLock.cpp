#include "daemon/SaveLock.h"

#include <cstdio>
#include <cstdlib>

#include "daemon/VariablesLock.h"

namespace quillsift {

namespace {

void refuseUnderVariablesLock() {
  if (!VariablesLock::heldByThisThread()) return;
  std::fputs("quillsiftd: a save was waited for with the variables lock held\n", stderr);
  std::abort();
}

}  // namespace

void SaveLock::lock() {
  refuseUnderVariablesLock();
  MutexLock lock(mutex_);
  waitWhileHeld();
  held_ = true;
}

bool SaveLock::try_lock() {
  MutexLock lock(mutex_);
  if (held_) return false;
  held_ = true;
  return true;
}

void SaveLock::unlock() {
  MutexLock lock(mutex_);
  held_ = false;
  freed_.notify_all();
}

void SaveLock::waitUntilFree() {
  refuseUnderVariablesLock();
  MutexLock lock(mutex_);
  waitWhileHeld();
}

bool SaveLock::isHeld() const {
  MutexLock lock(mutex_);
  return held_;
}

std::size_t SaveLock::waiters() const {
  MutexLock lock(mutex_);
  return waiters_;
}

void SaveLock::waitWhileHeld() {
  ++waiters_;
  while (held_)
    freed_.wait(mutex_);
  --waiters_;
}

}  // namespace quillsift
