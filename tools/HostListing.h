#pragma once

#include <string>

#include "tools/HostTool.h"
#include "tools/Recipe.h"

namespace quillsift::tools {

// A listing that is one host tool's output and nothing else. Runs it; the exit code is the tool's
// own, after one line of ours when it is not installed (69), was ended by a signal (69) or by a
// limit (75), or failed because it was refused something (77).
int listingOf(Invocation& invocation, const ToolRequest& request);

// The exit code of a listing of which this user does not see all: one line that says what, and 77.
// 0 for root, for whom there is no more to see (Report::finish).
int listedInPart(Invocation& invocation, const std::string& what);

// Whether this user may look into the processes of others.
bool maySeeAllProcesses(const Host& host);

}  // namespace quillsift::tools
