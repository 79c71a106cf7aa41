#pragma once

#include <string>
#include <vector>

#include "platform/Mutex.h"
#include "platform/RecoveryEnvironment.h"

namespace quillsift {

// A progress screen that is not shown until the test says so. Any thread.
class FakeInstallerProgress : public InstallerProgress {
 public:
  void setShowing(bool showing) {
    MutexLock lock(mutex_);
    showing_ = showing;
  }
  std::vector<std::string> hiddenFor() const {  // the phases
    MutexLock lock(mutex_);
    return hiddenFor_;
  }

  bool isShowing() override {
    MutexLock lock(mutex_);
    return showing_;
  }
  void hide(const std::string& phase) override {
    MutexLock lock(mutex_);
    showing_ = false;
    hiddenFor_.push_back(phase);
  }

 private:
  mutable Mutex mutex_;
  bool showing_ QS_GUARDED_BY(mutex_) = false;
  std::vector<std::string> hiddenFor_ QS_GUARDED_BY(mutex_);
};

}  // namespace quillsift
