#pragma once

#include <sys/types.h>

#include <string>

#include "platform/ProcessLauncher.h"

namespace quillsift {

// Starts `file` as the request says. Standard output and error of the child are the descriptor
// `output`, or the null device for -1; its other descriptors, signals and mask are as ChildProcess
// promises. 0 and the child, which the caller has to reap, or an errno value.
int spawnChild(const std::string& file, const LaunchRequest& request, int output, pid_t* child);

}  // namespace quillsift
