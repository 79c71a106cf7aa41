#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "client/Output.h"
#include "client/Reporter.h"
#include "client/SessionWatcher.h"
#include "client/TerminalBlock.h"

namespace quillsift {

// The lines of the live view, each at most `columns` wide.
std::vector<std::string> sessionLines(const JobTable& table, std::chrono::seconds watched,
                                      std::size_t columns);
std::vector<std::string> saveLines(const SaveReport& report, std::size_t columns);

// On a terminal: what lasts scrolls by as with PlainReporter, how it goes is redrawn in place.
class LiveReporter : public Reporter {
 public:
  // `size` is asked before each drawing, so a terminal may be resized meanwhile.
  LiveReporter(Output& out, Output& err, SteadyClock now, std::function<TerminalSize()> size);
  ~LiveReporter() override;

  void notice(const Notice& notice) override;
  void jobsAtHand(const JobTable&) override {}
  void jobChanged(const QSJobInfo&) override {}
  void sessionProgress(const JobTable& table) override;
  void saveProgress(const SaveReport& report) override;
  void progressEnded() override;
  void summary(const SummaryReport& report) override;
  void failure(const Ending& ending) override;
  int outputError() const override { return out_.error(); }

 private:
  bool drawingIsDue();
  void draw(std::vector<std::string> lines, TerminalSize size);

  Output& out_;
  Output& err_;
  const SteadyClock now_;
  const std::function<TerminalSize()> size_;
  TerminalBlock block_;
  std::optional<std::chrono::steady_clock::time_point> firstDrawing_;
  std::optional<std::chrono::steady_clock::time_point> lastDrawing_;
};

}  // namespace quillsift
