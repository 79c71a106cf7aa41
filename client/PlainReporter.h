#pragma once

#include "client/Output.h"
#include "client/Reporter.h"

namespace quillsift {

// Lines for a log, a pipe or a terminal that can only print.
class PlainReporter : public Reporter {
 public:
  PlainReporter(Output& out, Output& err) : out_(out), err_(err) {}

  void notice(const Notice& notice) override;
  void jobsAtHand(const JobTable&) override {}
  void jobChanged(const QSJobInfo& job) override;
  void sessionProgress(const JobTable&) override {}
  void saveProgress(const SaveReport& report) override;
  void progressEnded() override { lastTenth_ = 0; }
  void summary(const SummaryReport& report) override;
  void failure(const Ending& ending) override;
  int outputError() const override { return out_.error(); }

 private:
  Output& out_;
  Output& err_;
  int lastTenth_ = 0;  // of a save, as printed
};

// "quillsift: why", as all reporters write it to standard error.
void writeFailure(Output& err, const Ending& ending);

}  // namespace quillsift
