#include "platform/linux/OutputWithLimit.h"

#include <exception>
#include <utility>

#include "platform/Mutex.h"
#include "platform/linux/BackgroundThread.h"
#include "platform/linux/Deadline.h"

namespace quillsift {

namespace {

struct Result {
  Mutex mutex;
  ConditionVariable ended;
  bool done QS_GUARDED_BY(mutex) = false;
  std::optional<QSData> output QS_GUARDED_BY(mutex);
};

std::optional<QSData> outputOf(ChildProcess& child) {
  try {
    auto output = child.readOutputToEnd();
    if (child.waitUntilExit() == 0) return output;
  } catch (const std::exception&) {
  }
  return std::nullopt;
}

}  // namespace

std::optional<QSData> outputWithin(const std::shared_ptr<ChildProcess>& child,
                                   std::chrono::nanoseconds limit) {
  const auto result = std::make_shared<Result>();
  const bool started = startBackgroundThread([child, result] {
    auto output = outputOf(*child);
    const MutexLock lock(result->mutex);
    result->output = std::move(output);
    result->done = true;
    result->ended.notify_all();
  });
  if (!started) {
    child->kill();  // or whoever lets go of it waits for its end
    return std::nullopt;
  }
  const auto deadline = deadlineAfter(limit);
  MutexLock lock(result->mutex);
  while (!result->done) {
    if (result->ended.wait_until(result->mutex, deadline) != std::cv_status::timeout) continue;
    if (!result->done) child->kill();
    break;
  }
  return std::move(result->output);
}

}  // namespace quillsift
