#pragma once

#include "platform/FileDescriptor.h"

namespace quillsift {

// Something to poll for that another thread can set. Any thread.
class WakeDescriptor {
 public:
  // Not valid, and errno, when the system has none.
  WakeDescriptor();

  bool valid() const { return descriptor_.valid(); }
  int get() const { return descriptor_.get(); }
  // Makes it readable until clear; never waits.
  void wake() const;
  void clear() const;

 private:
  FileDescriptor descriptor_;
};

// Waits until `descriptor` is ready for `events` (poll's) or `wake` is set; without limit.
// 0, ECANCELED when woken, or what poll failed with. What both are ready for counts as woken.
int waitUnlessWoken(int descriptor, short events, const WakeDescriptor& wake);

}  // namespace quillsift
