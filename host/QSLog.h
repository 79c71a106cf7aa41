#pragma once

#include "platform/SystemLog.h"

namespace quillsift {

// The program-wide log: every message goes to the system log, with the installation facility, and
// as the line "<process>[<pid>]: <message>" to the system console. `priority` is a level
// (kLogError, kLogInfo). `console` is passed as 1 and has no effect. Any thread, no lock: console
// lines of concurrent callers may interleave. Keeps errno.
//
// The console is given as many bytes as the line has UTF-16 code units, so a line with other than
// ASCII characters arrives there cut short; the system log has it whole.
[[gnu::format(printf, 3, 4)]] void QSLog(int priority, int console, const char* format, ...);

}  // namespace quillsift
