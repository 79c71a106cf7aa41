#pragma once

#include <optional>
#include <string>
#include <vector>

#include "client/JobTable.h"
#include "client/JsonObject.h"
#include "client/SessionWatcher.h"

namespace quillsift {

// "notStarted", "running", "nonZeroExit", "failed", "succeeded".
const char* nameOf(JobState state);

// A job's record as JSON members: its status as the protocol's number, and as a name.
JsonObject describeJob(const QSJobInfo& job);

// What became of a session's jobs, taken at one moment: how many went well, and each one that did
// not, with its reason. A job whose program exited non-zero is told apart from one that failed,
// because its output is there all the same.
class SummaryReport {
 public:
  explicit SummaryReport(const SessionWatcher& watcher);
  SummaryReport(SessionWatcher::Session session, std::optional<QSDate> dateFinished,
                const JobTable& table);

  // For a person, ready to print.
  std::vector<std::string> lines() const;
  JsonObject json() const;

  // Jobs that a save without the sensitive ones leaves out: those which have something to save.
  std::size_t sensitiveOutputs() const { return sensitiveOutputs_; }

 private:
  std::string heading() const;
  void appendSection(std::vector<std::string>* lines, const std::string& title,
                     const std::vector<QSJobInfo>& jobs) const;

  const SessionWatcher::Session session_;
  const std::optional<QSDate> dateFinished_;
  const JobCounts counts_;
  std::size_t withoutOutput_ = 0;  // of those that succeeded
  std::size_t sensitiveOutputs_ = 0;
  std::vector<QSJobInfo> nonZeroExit_;
  std::vector<QSJobInfo> failed_;
  std::vector<QSJobInfo> unfinished_;
};

}  // namespace quillsift
