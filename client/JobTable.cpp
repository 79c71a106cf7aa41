#include "client/JobTable.h"

#include "platform/Text.h"

namespace quillsift {

JobState stateOf(const QSJobInfo& job) {
  const auto state = static_cast<JobState>(job.jobStatus());
  switch (state) {
    case JobState::notStarted:
    case JobState::running:
    case JobState::nonZeroExit:
    case JobState::failed:
    case JobState::succeeded:
      return state;
  }
  return JobState::running;
}

bool hasEnded(JobState state) {
  return state == JobState::nonZeroExit || state == JobState::failed ||
         state == JobState::succeeded;
}

bool JobTable::update(const QSJobInfo& job) {
  if (!job.uuid()) return false;
  const auto [entry, isNew] = indices_.try_emplace(*job.uuid(), jobs_.size());
  if (isNew) {
    jobs_.push_back(job);
    count(job, true);
    return true;
  }
  QSJobInfo& known = jobs_[entry->second];
  const bool stale = hasEnded(stateOf(known)) && !hasEnded(stateOf(job));
  if (stale || known.encodeWithCoder() == job.encodeWithCoder()) return false;
  count(known, false);
  known = job;
  count(job, true);
  return true;
}

void JobTable::clear() {
  jobs_.clear();
  indices_.clear();
  counts_ = {};
}

std::vector<std::string> JobTable::runningPaths(std::size_t limit) const {
  std::vector<std::string> paths;
  for (const QSJobInfo& job : jobs_) {
    if (paths.size() == limit) break;
    if (!hasEnded(stateOf(job))) paths.push_back(orNull(job.relativeFilePathAndName()));
  }
  return paths;
}

void JobTable::count(const QSJobInfo& job, bool add) {
  const auto step = [add](auto& number, auto by) { add ? number += by : number -= by; };
  step(counts_.bytes, job.jobSize().value_or(0));
  switch (stateOf(job)) {
    case JobState::notStarted:
    case JobState::running:
      return step(counts_.unfinished, 1u);
    case JobState::nonZeroExit:
      return step(counts_.nonZeroExit, 1u);
    case JobState::failed:
      return step(counts_.failed, 1u);
    case JobState::succeeded:
      return step(counts_.succeeded, 1u);
  }
}

}  // namespace quillsift
