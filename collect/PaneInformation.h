#pragma once

#include <string>

#include "jobs/QSJob.h"

namespace quillsift {

// Runs the window-server information tool and captures the file that it leaves behind. What the
// tool prints, and its exit code, do not matter.
WorkBlock paneInformationWork(const std::string& tool);

}  // namespace quillsift
