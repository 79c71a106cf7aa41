#pragma once

#include <string>

#include "save/SaveHost.h"

namespace quillsift {

// Writes the session's results as files below the directory `destination`, each at its job's
// relative path with its permissions, owner, group and extended attributes, and returns whether
// they all stand there. Sensitive jobs are left out unless asked for, jobs without output always;
// of jobs with one path the last stays.
//
// The directory is made if it is not there. When it could be made and then a file could not be
// written, it is removed with everything in it, whatever it held before. Every way out ends with
// one finished or failed report; failures go to the system log. Nothing is flushed.
//
// Runs on the caller's thread; jobs may change meanwhile. The caller makes sure that there is one
// save at a time.
bool writeDirectory(const std::string& destination, bool collectSensitiveFiles, SaveHost& host);

}  // namespace quillsift
