#pragma once

#include <string>

#include "save/SaveHost.h"

namespace quillsift {

// Writes the session's results into one gzip-compressed pax archive at `destination`, one member a
// job, and returns whether it stands there. Sensitive jobs are left out unless asked for, jobs
// without output always.
//
// The archive is written as "<destination>.inprogress" and renamed when all of it is on the medium,
// so that the final name means a complete archive also after a power cut. Every way out ends with
// one finished or failed report; an exception leaves only where a failure cannot even be told.
// Failures go to the system log, except a temporary file that cannot be opened. What was written
// is removed after a failure.
//
// Runs on the caller's thread, compressing all the data; jobs may change meanwhile. The caller
// makes sure that there is one save at a time.
bool writeArchive(const std::string& destination, bool collectSensitiveFiles, SaveHost& host);

}  // namespace quillsift
