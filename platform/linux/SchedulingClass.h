#pragma once

#include <sys/types.h>

#include "platform/QualityOfService.h"

namespace quillsift {

// What a class means to the scheduler of the host. Utility work runs 5 steps of niceness below the
// daemon and near the end of the best-effort I/O range, so that it yields without starving; the
// other classes run as the daemon does. Where the host refuses, things stay as they are.

// Puts the calling thread into the class; the threads and children it starts inherit that. A
// lowered thread can be raised again by a privileged process only.
void setThreadSchedulingClass(QOSClass qos);

// Who comes first among threads whose work is short and waited for by a person.
enum class Promptness { answers, service };

// Puts the calling thread in front of the daemon's others and its children: at the lowest real-time
// priorities where the host allows it, for a fair scheduler lets a running task finish its slice
// first, and dozens of busy children have many. Else ten steps of niceness, or nothing. Threads
// that it starts are ordinary ones. No more than a thread or two may be like this.
void setPromptScheduling(Promptness promptness);

// Puts a child of ours into the class, unless it has inherited just that.
void setChildSchedulingClass(pid_t child, QOSClass qos);

}  // namespace quillsift
