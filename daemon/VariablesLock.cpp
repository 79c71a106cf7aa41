#include "daemon/VariablesLock.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace quillsift {

namespace {

thread_local bool held = false;

}  // namespace

VariablesLock::VariablesLock(std::shared_ptr<SerialQueue> serviceQueue)
    : serviceQueue_(std::move(serviceQueue)) {}

void VariablesLock::lock() QS_NO_ANALYSIS {
  if (held || serviceQueue_->isCurrent()) {
    std::fputs("quillsiftd: the variables lock was taken where it would never be given\n", stderr);
    std::abort();
  }
  mutex_.lock();
  held = true;
}

void VariablesLock::unlock() QS_NO_ANALYSIS {
  held = false;
  mutex_.unlock();
}

bool VariablesLock::heldByThisThread() {
  return held;
}

}  // namespace quillsift
