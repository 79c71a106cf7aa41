#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "daemon/protocol/QSJobInfo.h"

namespace quillsift {

// How a job stands; the numbers are the protocol's.
enum class JobState : std::int64_t {
  notStarted = 0,
  running = 1,
  nonZeroExit = 2,  // its program exited non-zero; the output is kept
  failed = 3,
  succeeded = 4,
};

// A number that this client does not know counts as running: all that is certain is that the job
// is in none of the states in which it has ended.
JobState stateOf(const QSJobInfo& job);
bool hasEnded(JobState state);

struct JobCounts {
  std::size_t unfinished = 0;  // not started or running
  std::size_t nonZeroExit = 0;
  std::size_t failed = 0;
  std::size_t succeeded = 0;
  std::uint64_t bytes = 0;  // captured so far, over all jobs

  std::size_t total() const { return unfinished + nonZeroExit + failed + succeeded; }
  // Ended with their output, whole or in part.
  std::size_t done() const { return nonZeroExit + succeeded; }

  bool operator==(const JobCounts&) const = default;
};

// The jobs of one session by uuid, from queries and pushes, in the order in which they started.
// A job that has ended stays so: a push made before a query can come in after its answer.
class JobTable {
 public:
  // True if this tells something new. Records without uuid are ignored.
  bool update(const QSJobInfo& job);
  void clear();

  bool empty() const { return jobs_.empty(); }
  const std::vector<QSJobInfo>& jobs() const { return jobs_; }
  const JobCounts& counts() const { return counts_; }
  // Paths of the jobs that run, the oldest first, at most `limit` of them.
  std::vector<std::string> runningPaths(std::size_t limit) const;

 private:
  void count(const QSJobInfo& job, bool add);

  std::vector<QSJobInfo> jobs_;
  std::unordered_map<std::string, std::size_t> indices_;
  JobCounts counts_;
};

}  // namespace quillsift
