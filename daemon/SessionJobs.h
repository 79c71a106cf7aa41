#pragma once

#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "platform/Mutex.h"
#include "platform/QSDate.h"

namespace quillsift {

class QSJob;

// The jobs of a session in the order of their registration, and the date when it finished.
//
// Changed only under the variables lock, and so stable for whoever holds that. Read by anybody at
// any time: a client's question does not wait for those who hold the lock, which can be minutes.
// Its own mutex comes before those of the jobs, and is never held while anything is waited for.
class SessionJobs {
 public:
  using Jobs = std::vector<std::shared_ptr<QSJob>>;

  void append(std::shared_ptr<QSJob> job) {
    const MutexLock lock(mutex_);
    jobs_.push_back(std::move(job));
  }
  void setDateFinished(std::optional<QSDate> date) {
    const MutexLock lock(mutex_);
    dateFinished_ = date;
  }
  // Empties the list and forgets the date; hands out the jobs.
  Jobs take() {
    const MutexLock lock(mutex_);
    dateFinished_.reset();
    return std::exchange(jobs_, {});
  }

  bool empty() const {
    const MutexLock lock(mutex_);
    return jobs_.empty();
  }
  std::optional<QSDate> dateFinished() const {
    const MutexLock lock(mutex_);
    return dateFinished_;
  }
  Jobs jobs() const {
    const MutexLock lock(mutex_);
    return jobs_;
  }
  // `make` of every job, and to `dateFinished`, unless it is null, the date of the same moment. No
  // job is kept beyond the call, so that it is never a question that lets go of a session's data.
  template <typename Result>
  std::vector<Result> each(Result (*make)(const QSJob& job),
                           std::optional<QSDate>* dateFinished) const {
    const MutexLock lock(mutex_);
    std::vector<Result> results;
    results.reserve(jobs_.size());
    for (const auto& job : jobs_)
      results.push_back(make(*job));
    if (dateFinished != nullptr) *dateFinished = dateFinished_;
    return results;
  }
  // Takes no memory.
  void stopAll() const;

 private:
  mutable Mutex mutex_;
  Jobs jobs_ QS_GUARDED_BY(mutex_);
  std::optional<QSDate> dateFinished_ QS_GUARDED_BY(mutex_);
};

}  // namespace quillsift
