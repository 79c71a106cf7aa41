#pragma once

#include <string>

namespace quillsift::tools {

// The file that this process runs; empty when it cannot be told.
std::string executableFile();

// What the kernel was asked to execute: the link in the tree, when that is how we were started.
std::string startedPath();

}  // namespace quillsift::tools
