#include "platform/linux/SchedulingClass.h"

#include <linux/ioprio.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

namespace quillsift {

namespace {

constexpr int kUtilityNiceStep = 5;
constexpr int kLeastUrgentNice = 19;
constexpr int kPromptNiceStep = 10;
constexpr int kUtilityIOLevel = 6;  // of 0 (first) to 7 within best effort

int niceOf(QOSClass qos) {
  // The main thread's: no queue ever changes it.
  const int ours = ::getpriority(PRIO_PROCESS, static_cast<id_t>(::getpid()));
  return qos == QOSClass::utility ? std::min(ours + kUtilityNiceStep, kLeastUrgentNice) : ours;
}

int ioPriorityOf(QOSClass qos) {
  return qos == QOSClass::utility ? IOPRIO_PRIO_VALUE(IOPRIO_CLASS_BE, kUtilityIOLevel)
                                  : IOPRIO_PRIO_VALUE(IOPRIO_CLASS_NONE, 0);
}

bool setRealTimePriority(int priority) {
  // A limit on real-time computing ends the process that exceeds it, and all that it holds.
  rlimit limit{};
  if (::getrlimit(RLIMIT_RTTIME, &limit) != 0 || limit.rlim_cur != RLIM_INFINITY) return false;
  sched_param parameters{};
  parameters.sched_priority = priority;
  return ::sched_setscheduler(0, SCHED_RR | SCHED_RESET_ON_FORK, &parameters) == 0;
}

// `task` is a thread or a child; 0 is the calling thread.
void setSchedulingClass(pid_t task, QOSClass qos) {
  (void)::setpriority(PRIO_PROCESS, static_cast<id_t>(task), niceOf(qos));
  (void)::syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, task, ioPriorityOf(qos));
}

}  // namespace

void setThreadSchedulingClass(QOSClass qos) {
  if (qos == QOSClass::utility) setSchedulingClass(0, qos);
}

void setPromptScheduling(Promptness promptness) {
  if (setRealTimePriority(::sched_get_priority_min(SCHED_RR) + static_cast<int>(promptness)))
    return;
  const sched_param ordinary{};
  (void)::sched_setscheduler(0, SCHED_OTHER | SCHED_RESET_ON_FORK, &ordinary);
  (void)::setpriority(PRIO_PROCESS, 0, niceOf(QOSClass::userInitiated) - kPromptNiceStep);
}

void setChildSchedulingClass(pid_t child, QOSClass qos) {
  if (::getpriority(PRIO_PROCESS, static_cast<id_t>(child)) != niceOf(qos)) {
    setSchedulingClass(child, qos);
  }
}

}  // namespace quillsift
