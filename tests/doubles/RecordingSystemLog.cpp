#include "tests/doubles/RecordingSystemLog.h"

#include <algorithm>
#include <cerrno>

namespace quillsift {

void RecordingSystemLog::write(int priorityWord, const std::string& message) {
  MutexLock lock(mutex_);
  lines_.push_back({priorityWord, message});
}

std::vector<LogLine> RecordingSystemLog::lines() const {
  MutexLock lock(mutex_);
  return lines_;
}

std::vector<std::string> RecordingSystemLog::messages() const {
  MutexLock lock(mutex_);
  std::vector<std::string> messages;
  for (const LogLine& line : lines_)
    messages.push_back(line.message);
  return messages;
}

bool RecordingSystemLog::contains(std::string_view part) const {
  MutexLock lock(mutex_);
  return std::any_of(lines_.begin(), lines_.end(), [&](const LogLine& line) {
    return line.message.find(part) != std::string::npos;
  });
}

void RecordingSystemLog::clear() {
  MutexLock lock(mutex_);
  lines_.clear();
}

void RecordingConsole::write(std::string_view bytes) {
  MutexLock lock(mutex_);
  writes_.emplace_back(bytes);
  if (errnoAfterWrite_ != 0) errno = errnoAfterWrite_;
}

std::vector<std::string> RecordingConsole::writes() const {
  MutexLock lock(mutex_);
  return writes_;
}

void RecordingConsole::setErrnoAfterWrite(int code) {
  MutexLock lock(mutex_);
  errnoAfterWrite_ = code;
}

}  // namespace quillsift
