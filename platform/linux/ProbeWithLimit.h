#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/linux/VolumeFacts.h"

namespace quillsift {

// Looks at devices that may be dying. A read from such a device can take minutes or never return,
// and nothing can interrupt it: so every look has a thread of its own, which is waited for only so
// long and then left behind. As long as it is stuck nobody waits for that device again. Any thread;
// callers who ask for one device at the same time share a look.
class ProbeWithLimit {
 public:
  using Probe = std::function<std::optional<VolumeFacts>(const std::string& path)>;

  // `probe` runs on threads that may outlive this object.
  ProbeWithLimit(Probe probe, std::chrono::nanoseconds limit);

  // None also for a device that does not answer in time.
  std::optional<VolumeFacts> operator()(const std::string& path);

 private:
  struct Look;
  struct Looks;

  // The look under way, or a new one; null when no thread can be had.
  std::shared_ptr<Look> join(const std::string& path);

  const Probe probe_;
  const std::chrono::nanoseconds limit_;
  const std::shared_ptr<Looks> looks_;
};

}  // namespace quillsift
