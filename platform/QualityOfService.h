#pragma once

#include <cstdint>

namespace quillsift {

// How urgent work is. The numbers are part of the interface: they are shown with a job's launch
// parameters and name the worker queue that runs it.
enum class QOSClass : std::uint32_t {
  utility = 17,
  standard = 21,
  userInitiated = 25,
};

// The class of the task that the calling thread is running; `standard` on a thread that runs none.
QOSClass currentQOS();

// Sets the calling thread's class for a scope. For implementations of queues.
class ScopedQOS {
 public:
  explicit ScopedQOS(QOSClass qos);
  ~ScopedQOS();
  ScopedQOS(const ScopedQOS&) = delete;
  ScopedQOS& operator=(const ScopedQOS&) = delete;

 private:
  QOSClass previous_;
};

}  // namespace quillsift
