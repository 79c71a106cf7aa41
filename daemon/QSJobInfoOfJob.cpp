// Apart from the rest of the record, which clients share and which knows no jobs.

#include "daemon/protocol/QSJobInfo.h"
#include "jobs/QSJob.h"

namespace quillsift {

QSJobInfo::QSJobInfo(const QSJob& job)
    : sensitive_(job.sensitive()),
      jobStatus_(static_cast<std::int64_t>(job.jobStatus())),
      relativeFilePathAndName_(job.relativeFilePathAndName()),
      failureReason_(job.failureReason()),
      dateFinished_(job.dateFinished()),
      uuid_(job.uuid()) {
  const auto entry = job.resultEntry();
  jobSize_ = entry ? entry->length() : 0;
}

}  // namespace quillsift
