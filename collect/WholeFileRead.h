#pragma once

#include <string>

#include "jobs/QSJob.h"

namespace quillsift {

// Captures a file's bytes, not its owner or mode. Always succeeds: a file that cannot be read gives
// an entry without data, so that it does not show up as a failed job.
WorkBlock wholeFileReadWork(std::string path);

}  // namespace quillsift
