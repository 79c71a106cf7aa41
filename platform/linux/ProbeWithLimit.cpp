#include "platform/linux/ProbeWithLimit.h"

#include <exception>
#include <map>
#include <new>
#include <utility>

#include "platform/Mutex.h"
#include "platform/linux/BackgroundThread.h"
#include "platform/linux/Deadline.h"

namespace quillsift {

namespace {

// Lost memory, and whatever else goes wrong, costs one look.
std::optional<VolumeFacts> resultOf(const ProbeWithLimit::Probe& probe, const std::string& path) {
  try {
    return probe(path);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace

struct ProbeWithLimit::Look {
  const std::chrono::steady_clock::time_point deadline;
  bool done = false;  // guarded, as the result, by the mutex of all looks
  std::optional<VolumeFacts> result;
};

struct ProbeWithLimit::Looks {
  Mutex mutex;
  ConditionVariable someDone;
  std::map<std::string, std::shared_ptr<Look>> underWay QS_GUARDED_BY(mutex);
};

ProbeWithLimit::ProbeWithLimit(Probe probe, std::chrono::nanoseconds limit)
    : probe_(std::move(probe)), limit_(limit), looks_(std::make_shared<Looks>()) {}

std::shared_ptr<ProbeWithLimit::Look> ProbeWithLimit::join(const std::string& path) {
  MutexLock lock(looks_->mutex);
  const auto known = looks_->underWay.find(path);
  if (known != looks_->underWay.end()) return known->second;
  auto look = std::make_shared<Look>(Look{.deadline = deadlineAfter(limit_), .result = {}});
  bool started = false;
  try {
    looks_->underWay.emplace(path, look);
    started = startBackgroundThread([probe = probe_, path, look, looks = looks_] {
      auto result = resultOf(probe, path);
      MutexLock finishing(looks->mutex);
      look->result = std::move(result);
      look->done = true;
      looks->underWay.erase(path);
      looks->someDone.notify_all();
    });
  } catch (const std::bad_alloc&) {  // costs this look only
  }
  if (started) return look;
  looks_->underWay.erase(path);
  return nullptr;
}

std::optional<VolumeFacts> ProbeWithLimit::operator()(const std::string& path) {
  const auto look = join(path);
  if (!look) return std::nullopt;
  MutexLock lock(looks_->mutex);
  while (!look->done) {
    if (looks_->someDone.wait_until(looks_->mutex, look->deadline) == std::cv_status::timeout) {
      break;
    }
  }
  return look->done ? look->result : std::nullopt;
}

}  // namespace quillsift
