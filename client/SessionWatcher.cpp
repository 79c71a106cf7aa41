#include "client/SessionWatcher.h"

#include <poll.h>

#include <algorithm>
#include <utility>

namespace quillsift {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::nanoseconds kIntervalWhileJobsRun = 3s;
// With no job running the session may be at its end: soon, then less and less often.
constexpr std::chrono::nanoseconds kFirstIntervalWhileNoneRuns = 20ms;
constexpr std::chrono::nanoseconds kIntervalWhileNoneRuns = 500ms;
// Asking takes at most a tenth of the time, however long the list of jobs is.
constexpr int kRestPerQueryTime = 9;
// A daemon that has no time to answer is not to be asked all the more.
constexpr std::chrono::nanoseconds kLongestInterval = 60s;
constexpr unsigned kMostDoublings = 5;
// After three seconds or so. Between the steps of a session there is less.
constexpr unsigned kQueriesUntilTheEndIsLate = 10;

// One turn delivers a few hundred. More of them at once is a flood that never ends.
constexpr int kMostTurnsAtOnce = 1000;

// Rounds of query and notifications until both belong to the same session.
constexpr int kRefreshRounds = 5;

bool canBeRead(int descriptor) {
  pollfd request{.fd = descriptor, .events = POLLIN, .revents = 0};
  return ::poll(&request, 1, 0) == 1;
}

}  // namespace

SessionWatcher::SessionWatcher(QuillsiftService& service, ServiceObserver& next, SteadyClock now,
                               int wakeDescriptor)
    : service_(service), next_(next), now_(std::move(now)), wakeDescriptor_(wakeDescriptor) {
  service_.setObserver(this);
}

SessionWatcher::~SessionWatcher() {
  service_.setObserver(nullptr);
}

bool SessionWatcher::refresh(ServiceError* error) {
  for (int round = 0; round < kRefreshRounds; ++round) {
    const auto snapshot = query(error);
    if (!snapshot) return false;
    dateFinished_ = snapshot->dateFinished;
    for (const QSJobInfo& job : snapshot->jobs)
      jobChanged(job);

    // Notifications that came in before the answer are delivered only now. If a clear is among
    // them, nobody can tell whether the answer is from before or after it: ask again.
    const unsigned clearsBefore = clears_;
    if (!deliverWhatIsThere()) {
      if (error != nullptr) *error = ServiceError::connectionBroke();
      return false;
    }
    if (clears_ == clearsBefore) break;
  }
  refreshedOnce_ = true;
  return true;
}

bool SessionWatcher::deliverWhatIsThere() {
  using Wake = QuillsiftService::Wake;
  Wake wake = Wake::event;
  for (int turn = 0; wake == Wake::event && turn < kMostTurnsAtOnce; ++turn) {
    wake = service_.processEvents(0ns, -1);
  }
  return wake != Wake::disconnected;
}

std::optional<SessionSnapshot> SessionWatcher::query(ServiceError* error) {
  const auto begin = now_();
  ServiceError reason;
  auto snapshot = service_.queryJobs(&reason);
  lastAnswer_ = now_();
  lastQueryTook_ = lastAnswer_ - begin;
  const bool unanswered = reason.kind == ServiceError::Kind::timedOut;
  unansweredQueries_ = unanswered ? unansweredQueries_ + 1 : 0;
  queriesWhileNoneRuns_ = noneRuns() ? queriesWhileNoneRuns_ + 1 : 0;
  if (!snapshot && error != nullptr) *error = std::move(reason);
  return snapshot;
}

SessionWatcher::Turn SessionWatcher::listen(std::chrono::nanoseconds limit) {
  switch (service_.processEvents(limit, wakeDescriptor_)) {
    case QuillsiftService::Wake::event:
      // However much there is to deliver, a wish to leave is seen.
      return canBeRead(wakeDescriptor_) ? Turn::interrupted : Turn::event;
    case QuillsiftService::Wake::descriptor:
      return Turn::interrupted;
    case QuillsiftService::Wake::timeout:
      return Turn::idle;
    case QuillsiftService::Wake::disconnected:
      return Turn::disconnected;
  }
  return Turn::disconnected;
}

SessionWatcher::Turn SessionWatcher::watch(std::chrono::nanoseconds limit, ServiceError* error) {
  const bool asking = session() != Session::finished;
  if (asking && now_() >= nextQuery()) {
    ServiceError reason;
    if (!refresh(&reason) && reason.kind != ServiceError::Kind::timedOut) {
      const bool gone = reason.kind == ServiceError::Kind::disconnected;
      if (error != nullptr) *error = std::move(reason);
      return gone ? Turn::disconnected : Turn::idle;
    }
    if (session() == Session::finished) return Turn::event;
  }
  if (asking) limit = std::clamp<std::chrono::nanoseconds>(nextQuery() - now_(), 0ns, limit);
  const Turn turn = listen(limit);
  if (turn == Turn::disconnected && error != nullptr) *error = ServiceError::connectionBroke();
  return turn;
}

std::chrono::steady_clock::time_point SessionWatcher::nextQuery() const {
  if (lastAnswer_ == std::chrono::steady_clock::time_point{}) return lastAnswer_;
  if (daemonBusy()) {
    const auto doublings = std::min(unansweredQueries_, kMostDoublings);
    return lastAnswer_ + std::min(kLongestInterval, kIntervalWhileJobsRun * (1u << doublings));
  }
  auto interval = kIntervalWhileJobsRun;
  if (noneRuns()) {
    const auto doublings = std::min(queriesWhileNoneRuns_, kMostDoublings);
    interval = std::min(kIntervalWhileNoneRuns, kFirstIntervalWhileNoneRuns * (1u << doublings));
  }
  return lastAnswer_ + std::max(interval, lastQueryTook_ * kRestPerQueryTime);
}

bool SessionWatcher::endIsLate() const {
  return session() == Session::running && queriesWhileNoneRuns_ >= kQueriesUntilTheEndIsLate;
}

bool SessionWatcher::noneRuns() const {
  return !table_.empty() && table_.counts().unfinished == 0;
}

void SessionWatcher::startedHere() {
  awaitingOwnStart_ = true;
  sessionKnown_ = true;
  sessionWasCleared_ = false;
  table_.clear();
  dateFinished_.reset();
}

SessionWatcher::Session SessionWatcher::session() const {
  if (dateFinished_) return Session::finished;
  return sessionKnown_ || !table_.empty() ? Session::running : Session::none;
}

void SessionWatcher::sessionStarted() {
  sessionKnown_ = true;
  if (!std::exchange(awaitingOwnStart_, false)) next_.sessionStarted();
}

void SessionWatcher::sessionCleared() {
  ++clears_;
  const bool seen = session() != Session::none;
  table_.clear();
  dateFinished_.reset();
  // Our start swept away what was left of the session before; its announcement comes next.
  if (awaitingOwnStart_) return;
  sessionKnown_ = false;
  if (!seen) return;
  sessionWasCleared_ = true;
  next_.sessionCleared();
}

void SessionWatcher::jobChanged(const QSJobInfo& job) {
  const bool news = table_.update(job);
  if (!noneRuns()) queriesWhileNoneRuns_ = 0;
  if (news && refreshedOnce_) next_.jobChanged(job);
}

void SessionWatcher::saveReported(const SaveReport& report) {
  next_.saveReported(report);
}

void SessionWatcher::unreadableNotification(const std::string& name) {
  next_.unreadableNotification(name);
}

}  // namespace quillsift
