#pragma once

#include <string>
#include <string_view>

#include "tools/Host.h"
#include "tools/Output.h"

namespace quillsift::tools {

// The firmware's device tree below `directory` in the notation of its source language: nodes in
// braces, values as deviceTreeValue has them. Seeds for random numbers are left out.
void printDeviceTree(const std::string& directory, Output& output);

// The firmware's variables as one node "options"; nothing where there are none.
void printFirmwareOptions(const Host& host, Output& output);

// The value of a property as it stands behind its "=": `"okay"`, `<0x1 0x2>`, `[0a ff]`,
// as strings, 32-bit cells or bytes by what it looks like. Secrets in strings are masked, because
// the kernel's command line is one of them.
std::string deviceTreeValue(std::string_view bytes);

}  // namespace quillsift::tools
