#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/Mutex.h"
#include "platform/SystemLog.h"

namespace quillsift {

struct LogLine {
  int priorityWord;
  std::string message;

  bool operator==(const LogLine&) const = default;
};

// Keeps what is logged. Any thread.
class RecordingSystemLog : public SystemLog {
 public:
  void write(int priorityWord, const std::string& message) override;

  std::vector<LogLine> lines() const;
  std::vector<std::string> messages() const;
  bool contains(std::string_view part) const;  // in any message
  void clear();

 private:
  mutable Mutex mutex_;
  std::vector<LogLine> lines_ QS_GUARDED_BY(mutex_);
};

// Keeps what goes to the console, write by write. Any thread.
class RecordingConsole : public SystemConsole {
 public:
  void write(std::string_view bytes) override;

  std::vector<std::string> writes() const;
  // Each write leaves this in errno, as a real console may.
  void setErrnoAfterWrite(int code);

 private:
  mutable Mutex mutex_;
  std::vector<std::string> writes_ QS_GUARDED_BY(mutex_);
  int errnoAfterWrite_ QS_GUARDED_BY(mutex_) = 0;
};

}  // namespace quillsift
