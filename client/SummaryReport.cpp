#include "client/SummaryReport.h"

#include "client/HumanText.h"
#include "platform/Text.h"

namespace quillsift {

namespace {

using Session = SessionWatcher::Session;

const char* nameOf(Session session) {
  switch (session) {
    case Session::none:
      return "none";
    case Session::running:
      return "running";
    case Session::finished:
      return "finished";
  }
  return "none";
}

// What is there of the job's output, in parentheses behind its path; empty where nothing needs to
// be said.
std::string outputText(const QSJobInfo& job) {
  const std::uint64_t size = job.jobSize().value_or(0);
  switch (stateOf(job)) {
    case JobState::nonZeroExit:
      return size == 0 ? " (no output)" : " (" + sizeText(size) + ")";
    case JobState::failed:
      return size == 0 ? "" : " (" + sizeText(size) + " kept)";
    default:
      return "";
  }
}

std::string problemText(const QSJobInfo& job) {
  std::string text = printable(orNull(job.relativeFilePathAndName())) + outputText(job);
  if (hasEnded(stateOf(job))) {
    text += ": " + printable(job.failureReason().value_or("no reason given"));
  }
  return text;
}

JsonObject problemJson(const QSJobInfo& job) {
  return JsonObject()
      .add("path", job.relativeFilePathAndName())
      .add("status", job.jobStatus())
      .add("state", nameOf(stateOf(job)))
      .add("reason", job.failureReason())
      .add("size", job.jobSize());
}

}  // namespace

const char* nameOf(JobState state) {
  switch (state) {
    case JobState::notStarted:
      return "notStarted";
    case JobState::running:
      return "running";
    case JobState::nonZeroExit:
      return "nonZeroExit";
    case JobState::failed:
      return "failed";
    case JobState::succeeded:
      return "succeeded";
  }
  return "running";
}

JsonObject describeJob(const QSJobInfo& job) {
  std::optional<double> date;
  if (job.dateFinished()) date = job.dateFinished()->secondsSince1970;
  return JsonObject()
      .add("uuid", job.uuid())
      .add("path", job.relativeFilePathAndName())
      .add("status", job.jobStatus())
      .add("state", nameOf(stateOf(job)))
      .add("size", job.jobSize())
      .add("sensitive", job.sensitive())
      .add("dateFinished", date)
      .add("reason", job.failureReason());
}

SummaryReport::SummaryReport(const SessionWatcher& watcher)
    : SummaryReport(watcher.session(), watcher.dateFinished(), watcher.jobs()) {}

SummaryReport::SummaryReport(Session session, std::optional<QSDate> dateFinished,
                             const JobTable& table)
    : session_(session), dateFinished_(dateFinished), counts_(table.counts()) {
  for (const QSJobInfo& job : table.jobs()) {
    const bool hasOutput = job.jobSize().value_or(0) > 0;
    if (hasOutput && job.sensitive()) ++sensitiveOutputs_;
    switch (stateOf(job)) {
      case JobState::succeeded:
        if (!hasOutput) ++withoutOutput_;
        break;
      case JobState::nonZeroExit:
        nonZeroExit_.push_back(job);
        break;
      case JobState::failed:
        failed_.push_back(job);
        break;
      case JobState::notStarted:
      case JobState::running:
        unfinished_.push_back(job);
        break;
    }
  }
}

std::vector<std::string> SummaryReport::lines() const {
  std::vector<std::string> lines = {heading()};
  if (session_ == Session::none) return lines;
  if (counts_.succeeded > 0) {
    std::string line = formatted("  %zu succeeded", counts_.succeeded);
    if (withoutOutput_ > 0) line += formatted(", %zu of them without output", withoutOutput_);
    lines.push_back(std::move(line));
  }
  appendSection(&lines, "exited non-zero, the output is kept", nonZeroExit_);
  appendSection(&lines, "failed", failed_);
  appendSection(&lines, session_ == Session::running ? "running" : "not ended yet", unfinished_);
  return lines;
}

std::string SummaryReport::heading() const {
  std::string extent =
      countText(counts_.total(), "job") + ", " + sizeText(counts_.bytes) + " collected";
  switch (session_) {
    case Session::none:
      return "No session: nothing is collected.";
    case Session::running:
      return "A session is running: " + extent + ".";
    case Session::finished:
      return "The session finished at " + orNull(dateFinished_) + ": " + extent + ".";
  }
  return extent;
}

void SummaryReport::appendSection(std::vector<std::string>* lines, const std::string& title,
                                  const std::vector<QSJobInfo>& jobs) const {
  if (jobs.empty()) return;
  lines->push_back(formatted("  %zu %s:", jobs.size(), title.c_str()));
  for (const QSJobInfo& job : jobs)
    lines->push_back("    " + problemText(job));
}

JsonObject SummaryReport::json() const {
  std::optional<double> date;
  if (dateFinished_) date = dateFinished_->secondsSince1970;
  std::vector<JsonObject> problems;
  for (const auto* jobs : {&nonZeroExit_, &failed_, &unfinished_}) {
    for (const QSJobInfo& job : *jobs)
      problems.push_back(problemJson(job));
  }
  return JsonObject()
      .add("session", nameOf(session_))
      .add("dateFinished", date)
      .add("jobs", counts_.total())
      .add("succeeded", counts_.succeeded)
      .add("withoutOutput", withoutOutput_)
      .add("nonZeroExit", counts_.nonZeroExit)
      .add("failed", counts_.failed)
      .add("unfinished", counts_.unfinished)
      .add("bytes", counts_.bytes)
      .add("problems", problems);
}

}  // namespace quillsift
