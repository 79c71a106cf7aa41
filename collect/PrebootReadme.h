#pragma once

#include <string>

#include "jobs/QSJob.h"

namespace quillsift {

// Where this deployment explains how to read the collected preboot logs.
extern const char* const kPrebootLogsLink;

// The note that lies beside the preboot volumes' logs and names `link`.
WorkBlock prebootReadmeWork(const std::string& link);

}  // namespace quillsift
