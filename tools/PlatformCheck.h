#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/Host.h"
#include "tools/Output.h"

namespace quillsift::tools {

// One source of the collection plan, as `quillsiftd --list-plan` tells it.
struct PlannedSource {
  std::string kind;    // "command", "file", "directory" or "own"
  std::string member;  // the name of the result in an archive
  std::string path;
  std::vector<std::string> arguments;
};

// None for a line that is not of that form.
std::optional<PlannedSource> plannedSourceIn(std::string_view line);

// Says of each source whether the platform tree has it, the host, or nobody, and which host
// programs a listing of the tree would miss, with their Debian packages. 0 when the tree holds
// every program of the plan, else 69: there the host's program of the same name, if it has one,
// would run, or nothing.
int checkSources(std::span<const PlannedSource> sources, const Host& host, Output& output);

// The same with the plan of the daemon that lies above `executable`.
int checkPlatform(const std::string& executable, Output& output);

// The host programs that a recipe asks for, and the Debian packages that have them.
struct HostNeed {
  std::string_view planPath;
  std::string_view firstArgument;  // empty: whatever the arguments are
  std::string_view program;
  std::string_view package;
};
std::span<const HostNeed> hostNeeds();

}  // namespace quillsift::tools
