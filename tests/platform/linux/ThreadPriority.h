#pragma once

#include <sched.h>
#include <sys/resource.h>

#include <thread>

namespace quillsift {

// Whether the calling thread is in front of others that run as `ours`.
inline bool comesFirst(int ours) {
  return ::sched_getscheduler(0) == (SCHED_RR | SCHED_RESET_ON_FORK) ||
         ::getpriority(PRIO_PROCESS, 0) < ours;
}

// Whether this host lets us raise a thread at all.
inline bool mayRaiseThreads(int ours) {
  bool allowed = false;
  std::thread([&] {
    sched_param lowest{};
    lowest.sched_priority = ::sched_get_priority_min(SCHED_RR);
    allowed = ::sched_setscheduler(0, SCHED_RR, &lowest) == 0 ||
              ::setpriority(PRIO_PROCESS, 0, ours - 1) == 0;
  }).join();
  return allowed;
}

}  // namespace quillsift
