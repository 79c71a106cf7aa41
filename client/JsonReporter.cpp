#include "client/JsonReporter.h"

#include "client/PlainReporter.h"

namespace quillsift {

void JsonReporter::notice(const Notice& notice) {
  writeEvent(notice.event, notice.details);
}

void JsonReporter::jobsAtHand(const JobTable& table) {
  for (const QSJobInfo& job : table.jobs())
    jobChanged(job);
}

void JsonReporter::jobChanged(const QSJobInfo& job) {
  writeEvent("job", describeJob(job));
}

void JsonReporter::saveProgress(const SaveReport& report) {
  if (lastProgress_ == report.progress) return;
  lastProgress_ = report.progress;
  writeEvent("saveProgress",
             JsonObject().add("progress", report.progress).add("path", report.path));
}

void JsonReporter::summary(const SummaryReport& report) {
  writeEvent("summary", report.json());
}

void JsonReporter::failure(const Ending& ending) {
  writeEvent(
      "error",
      JsonObject().add("exitCode", static_cast<int>(ending.code)).add("message", ending.failure));
  writeFailure(err_, ending);
}

void JsonReporter::writeEvent(std::string_view event, const JsonObject& details) {
  out_.write(JsonObject().add("event", event).append(details).text() + "\n");
}

}  // namespace quillsift
