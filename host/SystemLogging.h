#pragma once

#include <cstdarg>
#include <string>

#include "platform/SystemLog.h"

namespace quillsift {

// Writes one line to the system log alone, at `level` (kLogError, kLogWarning, kLogInfo) of the
// installation facility. A text that is not a literal goes through "%s". Any thread. Keeps errno.
[[gnu::format(printf, 2, 3)]] void logToSystem(int level, const char* format, ...);

// The same for a finished text, which is never taken as a format.
void writeToSystemLog(int level, const std::string& message);

// printf formatting of an argument list. What cannot be formatted comes back as the bare format,
// so that no message is lost.
[[gnu::format(printf, 1, 0)]] std::string formattedList(const char* format, std::va_list arguments);

}  // namespace quillsift
