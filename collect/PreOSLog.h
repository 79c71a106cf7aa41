#pragma once

#include "jobs/QSJob.h"

namespace quillsift {

// The log that firmware and boot stages wrote before the operating system started. Fails with the
// POSIX error of the reader, which is ENOENT on a machine without such a log.
WorkBlock preOSLogWork();

}  // namespace quillsift
