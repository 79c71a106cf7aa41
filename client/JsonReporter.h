#pragma once

#include <optional>
#include <string_view>

#include "client/Output.h"
#include "client/Reporter.h"

namespace quillsift {

// One JSON object a line for programs; each has the member "event". The failure at the end is an
// event too, and goes to standard error as text besides.
class JsonReporter : public Reporter {
 public:
  JsonReporter(Output& out, Output& err) : out_(out), err_(err) {}

  void notice(const Notice& notice) override;
  void jobsAtHand(const JobTable& table) override;
  void jobChanged(const QSJobInfo& job) override;
  void sessionProgress(const JobTable&) override {}
  void saveProgress(const SaveReport& report) override;
  void progressEnded() override { lastProgress_.reset(); }
  void summary(const SummaryReport& report) override;
  void failure(const Ending& ending) override;
  int outputError() const override { return out_.error(); }

 private:
  void writeEvent(std::string_view event, const JsonObject& details);

  Output& out_;
  Output& err_;
  std::optional<double> lastProgress_;  // of a save, as printed
};

}  // namespace quillsift
