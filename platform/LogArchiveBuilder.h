#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace quillsift {

// Limits of one kind of log: only the newest bytes, and nothing older.
struct LogKindLimits {
  std::int64_t size;  // bytes
  std::int64_t age;   // seconds
};

// Exports the host's own log as an archive of files.
class LogArchiveBuilder {
 public:
  using Warning = std::function<void(const char* text)>;
  // One member: an open descriptor that stays the builder's, and its relative path. 0: go on;
  // anything else ends the export. From any thread.
  using Member = std::function<int(int descriptor, const char* path)>;

  virtual ~LogArchiveBuilder() = default;

  // Limits by kind: "persist", "special", "signpost", "highvolume". Returns once all members have
  // been handed over: 0, or an errno value (ENOSYS on a host that keeps no such log).
  virtual int build(const std::map<std::string, LogKindLimits>& limits, const Warning& warning,
                    const Member& member) = 0;
};

}  // namespace quillsift
