#include "client/LiveReporter.h"

#include <algorithm>
#include <utility>

#include "client/HumanText.h"
#include "client/PlainReporter.h"
#include "platform/Text.h"

namespace quillsift {

namespace {

// Often enough to look alive, seldom enough for a serial console.
constexpr std::chrono::milliseconds kFrame{100};

constexpr std::size_t kWidestBar = 60;
constexpr std::size_t kBesideTheBar = 10;  // indent, brackets and percentage
constexpr std::size_t kMostRunningNames = 8;

std::string barText(double fraction, std::size_t columns) {
  const std::size_t room = columns > kBesideTheBar ? columns - kBesideTheBar : 0;
  const std::size_t width = std::min(kWidestBar, room);
  // Rounded down: neither is full before all is written.
  const auto filled = static_cast<std::size_t>(fraction * static_cast<double>(width));
  return "  [" + std::string(filled, '#') + std::string(width - filled, '.') +
         formatted("] %3d%%", static_cast<int>(fraction * 100));
}

std::string runningText(const JobTable& table) {
  std::string text;
  for (const std::string& path : table.runningPaths(kMostRunningNames)) {
    text += (text.empty() ? "  " : ", ") + printable(path);
  }
  const std::size_t more = table.counts().unfinished > kMostRunningNames
                               ? table.counts().unfinished - kMostRunningNames
                               : 0;
  if (more > 0) text += formatted(", %zu more", more);
  return text;
}

}  // namespace

std::vector<std::string> sessionLines(const JobTable& table, std::chrono::seconds watched,
                                      std::size_t columns) {
  const JobCounts& counts = table.counts();
  const std::string state = formatted(
      "Collecting: %zu running, %zu done, %zu failed, %s  (%s)", counts.unfinished, counts.done(),
      counts.failed, sizeText(counts.bytes).c_str(), durationText(watched).c_str());
  return {fitted(state, columns), fitted(runningText(table), columns)};
}

std::vector<std::string> saveLines(const SaveReport& report, std::size_t columns) {
  constexpr std::string_view label = "Saving ";
  const std::size_t room = columns > label.size() ? columns - label.size() : 0;
  const std::string what = std::string(label) + fittedEnd(printable(report.path), room);
  return {fitted(what, columns),
          fitted(barText(std::clamp(report.progress, 0.0, 1.0), columns), columns)};
}

LiveReporter::LiveReporter(Output& out, Output& err, SteadyClock now,
                           std::function<TerminalSize()> size)
    : out_(out), err_(err), now_(std::move(now)), size_(std::move(size)), block_(out) {}

LiveReporter::~LiveReporter() {
  block_.erase();
}

void LiveReporter::notice(const Notice& notice) {
  if (!notice.text.empty()) block_.printAbove(notice.text);
}

void LiveReporter::sessionProgress(const JobTable& table) {
  if (!drawingIsDue()) return;
  const TerminalSize size = size_();
  const auto watched = std::chrono::duration_cast<std::chrono::seconds>(now_() - *firstDrawing_);
  draw(sessionLines(table, watched, size.columns - 1), size);
}

void LiveReporter::saveProgress(const SaveReport& report) {
  if (!drawingIsDue()) return;
  const TerminalSize size = size_();
  draw(saveLines(report, size.columns - 1), size);
}

void LiveReporter::progressEnded() {
  block_.erase();
  firstDrawing_.reset();
  lastDrawing_.reset();
}

void LiveReporter::summary(const SummaryReport& report) {
  std::string text;
  for (const std::string& line : report.lines())
    text += (text.empty() ? "" : "\n") + line;
  block_.printAbove(text);
}

void LiveReporter::failure(const Ending& ending) {
  progressEnded();
  writeFailure(err_, ending);
}

bool LiveReporter::drawingIsDue() {
  const auto now = now_();
  if (lastDrawing_ && now - *lastDrawing_ < kFrame) return false;
  if (!firstDrawing_) firstDrawing_ = now;
  lastDrawing_ = now;
  return true;
}

// One column stays free: a terminal that has filled its last column may wrap, or erase it.
void LiveReporter::draw(std::vector<std::string> lines, TerminalSize size) {
  if (lines.size() >= size.rows) lines.resize(size.rows - 1);
  block_.draw(lines, size);
}

}  // namespace quillsift
