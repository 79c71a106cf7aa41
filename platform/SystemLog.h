#pragma once

#include <string>
#include <string_view>

namespace quillsift {

// The installation facility (14): a log priority word is this plus the level.
inline constexpr int kInstallFacility = 14 << 3;

inline constexpr int kLogError = 3;
inline constexpr int kLogWarning = 4;
inline constexpr int kLogInfo = 6;

// The host's system log. Any thread. Keeps errno. A log that cannot be reached is not an error.
class SystemLog {
 public:
  virtual ~SystemLog() = default;

  // `priorityWord` is facility plus level, `message` the finished text (never a format).
  virtual void write(int priorityWord, const std::string& message) = 0;
};

// The system console. Any thread; no lock, so lines of concurrent callers may interleave.
class SystemConsole {
 public:
  virtual ~SystemConsole() = default;

  // One write of exactly these bytes. The console is opened at the first call and stays open; one
  // that cannot be opened swallows everything. May change errno.
  virtual void write(std::string_view bytes) = 0;
};

}  // namespace quillsift
