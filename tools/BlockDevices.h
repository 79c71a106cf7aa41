#pragma once

#include "tools/Recipe.h"
#include "tools/Report.h"

namespace quillsift::tools {

// Whether every block device that holds anything can be looked at. Tools that probe them say
// nothing about the others, so the report is told what stands in the way: a device without a node
// is a line of it, and reading is noted as not permitted.
bool sawAllBlockDevices(const Invocation& invocation, Report& report);

}  // namespace quillsift::tools
