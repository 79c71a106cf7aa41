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
// Its own mutex is a leaf, held for as long as it takes to copy the list.
class JobTable {
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
  // Empties the table and forgets the date; hands out the jobs.
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
  // The jobs, and to `dateFinished`, unless it is null, the date of the same moment.
  Jobs jobs(std::optional<QSDate>* dateFinished = nullptr) const {
    const MutexLock lock(mutex_);
    if (dateFinished != nullptr) *dateFinished = dateFinished_;
    return jobs_;
  }

 private:
  mutable Mutex mutex_;
  Jobs jobs_ QS_GUARDED_BY(mutex_);
  std::optional<QSDate> dateFinished_ QS_GUARDED_BY(mutex_);
};

}  // namespace quillsift
