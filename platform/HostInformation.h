#pragma once

#include <sys/types.h>
#include <time.h>

#include <cstddef>
#include <map>
#include <optional>
#include <string>

#include "platform/SystemValue.h"

namespace quillsift {

// Key of the build version in the system version record.
inline constexpr const char* kBuildVersionKey = "BuildVersion";

// The question for the machine's factory data: model, serial numbers, parts. Sensitive.
inline constexpr const char* kProvenanceReportKey = "ReportProvenanceDiagnostic";

// Facts about the host that have no better home. Any thread.
class HostInformation {
 public:
  virtual ~HostInformation() = default;

  // The classic system-control call: reads the value of `name` into `out` (at most *outLength
  // bytes, set to what is there; `out` null asks for the length alone) and sets it from `newValue`
  // when that is given. 0, or -1 and errno: ENOENT for an unknown name, ENOMEM for a small buffer.
  virtual int systemControl(const char* name, void* out, std::size_t* outLength,
                            const void* newValue, std::size_t newLength) = 0;
  // The system version record; none when it cannot be read.
  virtual std::optional<std::map<std::string, std::string>> systemVersion() = 0;
  // What the system answers to a question about itself, kProvenanceReportKey for one; none when it
  // has nothing to say. May read many small files.
  virtual std::optional<SystemValue> systemAnswer(const std::string& key) = 0;
  // Whether this variant of the system carries internal content for a subsystem.
  virtual bool carriesInternalContent(const std::string& subsystem) = 0;
  // Whether this process runs under binary translation.
  virtual bool runsTranslated() = 0;
  // The real-time clock, as clock_gettime: 0, or -1 and errno.
  virtual int realTime(timespec* out) = 0;
  // The executable of a process, at most `limit` bytes of it; empty when it cannot be told.
  virtual std::string executablePath(pid_t process, std::size_t limit) = 0;
};

}  // namespace quillsift
