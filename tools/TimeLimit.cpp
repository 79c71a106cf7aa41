#include "tools/TimeLimit.h"

#include <signal.h>
#include <sys/time.h>

namespace quillsift::tools {

namespace {

void interruptOnly(int) {}

timeval toTimeval(std::chrono::milliseconds duration) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
  const std::chrono::microseconds rest = duration - seconds;
  return {static_cast<time_t>(seconds.count()), static_cast<suseconds_t>(rest.count())};
}

}  // namespace

TimeLimit::TimeLimit(std::chrono::milliseconds limit)
    : end_(std::chrono::steady_clock::now() + limit) {
  struct sigaction action {};
  action.sa_handler = interruptOnly;  // without SA_RESTART
  ::sigaction(SIGALRM, &action, nullptr);
  // Again and again behind the limit: the first signal may come between a look at the clock and
  // the call that then waits.
  const itimerval timer{toTimeval(std::chrono::milliseconds(500)), toTimeval(limit)};
  ::setitimer(ITIMER_REAL, &timer, nullptr);
}

TimeLimit::~TimeLimit() {
  const itimerval none{};
  ::setitimer(ITIMER_REAL, &none, nullptr);
  ::signal(SIGALRM, SIG_DFL);
}

}  // namespace quillsift::tools
