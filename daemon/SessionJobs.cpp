#include "daemon/SessionJobs.h"

#include "jobs/QSJob.h"

namespace quillsift {

void SessionJobs::stopAll() const {
  const MutexLock lock(mutex_);
  for (const auto& job : jobs_)
    job->stop();
}

}  // namespace quillsift
