#pragma once

#include <sys/types.h>

#include <string>

namespace quillsift {

// The executable that a process runs, as the kernel names it; that of a deleted or replaced file
// under the name it had. Empty, with errno set, when it cannot be told.
std::string executableOf(pid_t process);

// The same of the process that a directory of /proc describes.
std::string executableInProcessDirectory(const std::string& directory);

// The path of a file that lies at `relativePath` beside the running executable. Empty, with errno
// set, when the executable cannot be told.
std::string fileBesideExecutable(const std::string& relativePath);

}  // namespace quillsift
