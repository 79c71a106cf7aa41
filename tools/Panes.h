#pragma once

#include <chrono>

#include "tools/Recipe.h"

namespace quillsift::tools {

// The program of the plan that leaves behind what the window server shows.
inline constexpr const char* kPaneProgram =
    "/System/Library/PrivateFrameworks/Glasswork.framework/Resources/paneinfo";

// How long the window servers may take, all of them together.
inline constexpr std::chrono::seconds kServersLimit{10};

// Writes /private/tmp/PaneServer.external.pinfo.plist: an array with one dictionary for each X
// server that lets us in and has answered within the limit. Without one, no file is left behind,
// and the exit code is 69.
int reportPanes(Invocation& invocation, std::chrono::milliseconds limit = kServersLimit);

}  // namespace quillsift::tools
