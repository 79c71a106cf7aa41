#include "client/SaveTracker.h"

#include <utility>

namespace quillsift {

namespace {

// Behind the name of an archive that is being written.
constexpr const char* kUnfinishedExtension = ".inprogress";

}  // namespace

SaveTracker::SaveTracker(std::string destination) : destination_(std::move(destination)) {}

bool SaveTracker::take(const SaveReport& report) {
  const bool named =
      report.path == destination_ || report.path == destination_ + kUnfinishedExtension;
  const bool ourFailure = state_ == State::underWay && report.state == SaveState::failed;
  if (!named && !ourFailure) return false;
  if (state_ == State::finished || state_ == State::failed) return false;
  latest_ = report;
  switch (report.state) {
    case SaveState::started:
    case SaveState::progress:
      state_ = State::underWay;
      break;
    case SaveState::finished:
      state_ = State::finished;
      break;
    case SaveState::failed:
      state_ = State::failed;
      break;
  }
  return true;
}

void OtherSaves::take(const SaveReport& report) {
  const bool running = report.state == SaveState::started || report.state == SaveState::progress;
  underWay_ = running ? std::optional(report.path) : std::nullopt;
  if (report.state == SaveState::finished) finished_ = report.path;
}

}  // namespace quillsift
