#include "client/SessionSaver.h"

#include <utility>

namespace quillsift {

namespace {

using namespace std::chrono_literals;
using Session = SessionWatcher::Session;
using Turn = SessionWatcher::Turn;

// How long a view may stand still.
constexpr auto kTurn = 250ms;
// A session's date is set a moment before the daemon takes saves.
constexpr auto kPatienceAtTheEnd = 10s;
constexpr auto kRetryAfter = 200ms;

}  // namespace

SessionSaver::SessionSaver(QuillsiftService& service, SessionWatcher& watcher, Reporter& reporter,
                           SteadyClock now)
    : service_(service), watcher_(watcher), reporter_(reporter), now_(std::move(now)) {}

Ending SessionSaver::save(const std::string& destination, SaveForm form, bool limited) {
  if (auto ending = waitForOtherSave()) return *ending;
  ours_.emplace(destination);
  form_ = form;
  if (auto ending = request(limited)) return *ending;
  const auto ending = follow();
  reporter_.progressEnded();
  return ending ? *ending : result();
}

void SessionSaver::waitUntilCleared() {
  const auto deadline = now_() + kPatienceAtTheEnd;
  while (watcher_.session() == Session::finished && now_() < deadline) {
    const Turn turn = watcher_.listen(kTurn);
    if (turn == Turn::disconnected || turn == Turn::interrupted) return;
  }
}

std::optional<Ending> SessionSaver::waitForOtherSave() {
  if (!others_.underWay()) return std::nullopt;
  reporter_.notice({"waiting", "Waiting for another client's save to end.",
                    JsonObject().add("path", *others_.underWay())});
  while (others_.underWay()) {
    if (auto ending = afterTurn(watcher_.listen(kTurn))) return ending;
  }
  // A save that has succeeded clears the session a moment later.
  const auto deadline = now_() + kPatienceAtTheEnd;
  while (others_.finished() && watcher_.session() == Session::finished && now_() < deadline) {
    if (auto ending = afterTurn(watcher_.listen(kTurn))) return ending;
  }
  if (watcher_.session() != Session::finished) return clearedBefore();
  return std::nullopt;
}

std::optional<Ending> SessionSaver::request(bool limited) {
  const auto deadline = now_() + kPatienceAtTheEnd;
  startedMeanwhile_ = false;
  for (;;) {
    ServiceError error;
    const auto answer =
        service_.save(ours_->destination(), form_ == SaveForm::archive, !limited, &error);
    if (!answer && error.kind == ServiceError::Kind::timedOut) {
      unanswered_ = true;
      reporter_.notice({"waiting", "The daemon is busy, the save waits its turn.", {}});
      return std::nullopt;
    }
    if (!answer) return endingOf(error);
    if (*answer) return std::nullopt;

    if (!watcher_.refresh(&error)) return endingOf(error);
    const bool atTheEnd = watcher_.session() == Session::finished;
    if (!atTheEnd || now_() >= deadline) return refused();
    if (auto ending = afterTurn(watcher_.listen(kRetryAfter))) return ending;
  }
}

std::optional<Ending> SessionSaver::follow() {
  using State = SaveTracker::State;
  while (ours_->state() == State::requested || ours_->state() == State::underWay) {
    const Turn turn = watcher_.listen(kTurn);
    const bool failed = ours_->state() == State::failed;
    if (ours_->latest() && !failed) reporter_.saveProgress(*ours_->latest());
    if (auto ending = afterTurn(turn)) return ending;
    const bool waiting = unanswered_ && ours_->state() == State::requested;
    if (waiting && startedMeanwhile_) return refused();
  }
  return std::nullopt;
}

void SessionSaver::saveReported(const SaveReport& report) {
  const bool isOurs = ours_ && ours_->take(report);
  if (!isOurs) others_.take(report);
}

void SessionSaver::sessionStarted() {
  startedMeanwhile_ = true;
  others_ = {};  // none can be under way, and what they saved was another session
}

bool SessionSaver::sessionCleared() {
  if (!ours_) return true;
  if (ours_->state() == SaveTracker::State::requested) clearedBefore_ = true;
  return false;
}

std::optional<Ending> SessionSaver::afterTurn(Turn turn) const {
  if (turn == Turn::disconnected) {
    Ending ending = endingOf(ServiceError::connectionBroke());
    if (ours_ && form_ == SaveForm::archive) {
      ending.failure += "; " + ours_->destination() + " is whole if it is there at all";
    } else if (ours_) {
      ending.failure += "; " + ours_->destination() + " may be incomplete";
    }
    return ending;
  }
  std::string text;
  if (turn == Turn::interrupted) text = "interrupted";
  if (const int error = reporter_.outputError(); error != 0) text = outputFailureText(error);
  if (text.empty()) return std::nullopt;
  text += ours_ ? "; the daemon goes on saving to " + ours_->destination()
                : "; the session is not saved, the daemon keeps it";
  return Ending{ExitCode::failed, std::move(text)};
}

Ending SessionSaver::refused() const {
  return {ExitCode::refused, "the daemon refused the save: a session is running"};
}

Ending SessionSaver::clearedBefore() const {
  std::string text = "the session was cleared before it could be saved";
  if (others_.finished()) text += "; another client has saved it to " + *others_.finished();
  return {ExitCode::failed, std::move(text)};
}

Ending SessionSaver::result() const {
  if (ours_->state() == SaveTracker::State::failed) {
    return {ExitCode::failed, "the daemon could not save to " + ours_->destination() +
                                  "; the system log may tell why, the session is kept"};
  }
  if (clearedBefore_) {
    Ending ending = clearedBefore();
    ending.failure += "; " + ours_->destination() + " holds nothing";
    return ending;
  }
  return {};
}

}  // namespace quillsift
