#pragma once

#include <optional>
#include <vector>

#include "platform/Mutex.h"
#include "platform/VisualFlash.h"

namespace quillsift {

// Notes the flashes; the default one has no parameters. Any thread.
class FakeVisualFlash : public VisualFlash {
 public:
  std::vector<std::optional<FlashParameters>> flashes() const {
    MutexLock lock(mutex_);
    return flashes_;
  }

  void flash() override {
    MutexLock lock(mutex_);
    flashes_.emplace_back();
  }
  void flash(const FlashParameters& parameters) override {
    MutexLock lock(mutex_);
    flashes_.emplace_back(parameters);
  }

 private:
  mutable Mutex mutex_;
  std::vector<std::optional<FlashParameters>> flashes_ QS_GUARDED_BY(mutex_);
};

}  // namespace quillsift
