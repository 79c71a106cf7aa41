#pragma once

#include <optional>
#include <string>

#include "platform/QSDate.h"
#include "platform/QSError.h"

namespace quillsift {

// Firmware variables, the name of a saved archive, facts about the host that steer a session, and
// the stopping of processes. Any thread. Only the last logs or fails: elsewhere what cannot be had
// is none, false or a stated text.
class QSUtilities {
 public:
  QSUtilities() = delete;

  // A firmware variable as text; bytes count as ASCII, all of them, NULs included. None for a
  // missing variable, bytes above 127 and any other type.
  static std::optional<std::string> NVRAMStringForKey(const std::string& key);

  // "quillsift_<date>_<model>_<build>.tgz" in the process's time zone, for example
  // quillsift_2026-11-15_22-41-56-GMT_Lumina14-2_25A123.tgz; "_limited" before ".tgz" for an
  // archive without the sensitive jobs. The model is "Lumina" where the host does not tell; the
  // build is "" without a system version record and "(null)" for a record that does not name it.
  static std::string ArchiveNameGivenDate(QSDate date, bool insensitiveArchive);

  // Whether the firmware variable "__QS_DIAGNOSTIC_UI" reads as true. Asked once per process.
  static bool DiagnosticUIEnabled();
  // Whether this is an internal variant of the system. Asked once per process.
  static bool isVantorInternal();
  // Whether this process runs under binary translation. Asked at every call.
  static bool isVantorSilicon();

  // Stops every process whose short command name (16 bytes at most) is `processName`, one after the
  // other: SIGINT first, SIGKILL if it is still there 3 seconds later, for which the caller waits.
  // True only when there was one and all of them are gone. What was done goes to the system log.
  // `errorPtr` (may be null): of the POSIX domain when nothing was tried; else
  // "QSKillProcessErrorDomain" 1, with what failed for single processes in its `errors`.
  static bool killProcessesWithName(const std::optional<std::string>& processName,
                                    QSError* errorPtr);
};

}  // namespace quillsift
