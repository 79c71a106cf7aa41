#include "client/PlainReporter.h"

#include <algorithm>

#include "client/HumanText.h"
#include "platform/Text.h"

namespace quillsift {

namespace {

// None while the job runs.
std::optional<std::string> endText(const QSJobInfo& job) {
  const std::string path = printable(orNull(job.relativeFilePathAndName()));
  const std::string size = " (" + sizeText(job.jobSize().value_or(0)) + ")";
  const std::string reason = ": " + printable(job.failureReason().value_or("no reason given"));
  switch (stateOf(job)) {
    case JobState::succeeded:
      return "done      " + path + size;
    case JobState::nonZeroExit:
      return "non-zero  " + path + size + reason;
    case JobState::failed:
      return "failed    " + path + reason;
    case JobState::notStarted:
    case JobState::running:
      break;
  }
  return std::nullopt;
}

}  // namespace

void writeFailure(Output& err, const Ending& ending) {
  err.write("quillsift: " + printable(ending.failure) + "\n");
}

void PlainReporter::notice(const Notice& notice) {
  if (!notice.text.empty()) out_.write(notice.text + "\n");
}

void PlainReporter::jobChanged(const QSJobInfo& job) {
  if (const auto text = endText(job)) out_.write(*text + "\n");
}

void PlainReporter::saveProgress(const SaveReport& report) {
  const int tenth = static_cast<int>(std::clamp(report.progress, 0.0, 1.0) * 10);
  if (tenth <= lastTenth_) return;
  lastTenth_ = tenth;
  out_.write(formatted("Saving: %d%%\n", tenth * 10));
}

void PlainReporter::summary(const SummaryReport& report) {
  std::string text;
  for (const std::string& line : report.lines())
    text += line + "\n";
  out_.write(text);
}

void PlainReporter::failure(const Ending& ending) {
  writeFailure(err_, ending);
}

}  // namespace quillsift
