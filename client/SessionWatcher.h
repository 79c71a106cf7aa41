#pragma once

#include <chrono>
#include <functional>
#include <optional>

#include "client/JobTable.h"
#include "client/QuillsiftService.h"

namespace quillsift {

// The monotonic clock, or one that a test turns by hand.
using SteadyClock = std::function<std::chrono::steady_clock::time_point()>;

// Keeps a picture of the daemon's session from queries and notifications.
//
// The daemon does not announce a session's end: only a query tells it, by its date. So it is asked
// now and then, sooner when a push leaves no job running, and later when answers are slow.
class SessionWatcher : private ServiceObserver {
 public:
  enum class Session { none, running, finished };
  enum class Turn { event, idle, interrupted, disconnected };

  // Becomes the observer of `service`. `next` hears what is news: not the jobs that the first
  // refresh found, not what our own start set off, not the clear of a session never seen.
  // `wakeDescriptor` interrupts a turn when it can be read (-1: none).
  SessionWatcher(QuillsiftService& service, ServiceObserver& next, SteadyClock now,
                 int wakeDescriptor);
  ~SessionWatcher() override;
  SessionWatcher(const SessionWatcher&) = delete;
  SessionWatcher& operator=(const SessionWatcher&) = delete;

  // Asks the daemon now. False and `error` on failure.
  bool refresh(ServiceError* error);
  // Waits at most `limit` for notifications.
  Turn listen(std::chrono::nanoseconds limit);
  // The same, and asks the daemon when that is due. An answer that takes too long is no failure
  // here, see daemonBusy. Other failures are in `error`, with the turn idle or disconnected.
  Turn watch(std::chrono::nanoseconds limit, ServiceError* error);

  // A start of ours was accepted: what it clears and announces is no news.
  void startedHere();

  Session session() const;
  const JobTable& jobs() const { return table_; }
  const std::optional<QSDate>& dateFinished() const { return dateFinished_; }
  // Whether a session that was known here has been cleared since.
  bool sessionWasCleared() const { return sessionWasCleared_; }
  // Whether the last query was not answered in time.
  bool daemonBusy() const { return unansweredQueries_ > 0; }
  // Whether no job has run for a while and the session has not finished all the same.
  bool endIsLate() const;

 private:
  void sessionStarted() override;
  void sessionCleared() override;
  void jobChanged(const QSJobInfo& job) override;
  void saveReported(const SaveReport& report) override;
  void unreadableNotification(const std::string& name) override;

  // False when the connection is gone.
  bool deliverWhatIsThere();
  std::optional<SessionSnapshot> query(ServiceError* error);
  std::chrono::steady_clock::time_point nextQuery() const;
  bool noneRuns() const;

  QuillsiftService& service_;
  ServiceObserver& next_;
  const SteadyClock now_;
  const int wakeDescriptor_;

  JobTable table_;
  std::optional<QSDate> dateFinished_;
  bool sessionKnown_ = false;      // one has started, though it may have no job yet
  bool awaitingOwnStart_ = false;  // our start was accepted, its announcement is still to come
  bool sessionWasCleared_ = false;
  bool refreshedOnce_ = false;
  unsigned clears_ = 0;

  std::chrono::steady_clock::time_point lastAnswer_{};
  std::chrono::nanoseconds lastQueryTook_{0};
  unsigned unansweredQueries_ = 0;
  unsigned queriesWhileNoneRuns_ = 0;  // one after the other
};

}  // namespace quillsift
