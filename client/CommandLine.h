#pragma once

#include <optional>
#include <string>

#include "client/ExitCode.h"
#include "daemon/protocol/QSServiceProtocols.h"

namespace quillsift {

// What the person typed.
struct CommandLine {
  enum class Command { collect, start, status, watch, save, clear };

  Command command = Command::status;
  std::optional<std::string> destination;
  bool directory = false;
  bool withoutSensitive = false;
  bool json = false;
  std::string socketPath = kDefaultSocketPath;
};

// A command line, or what to print and end with instead: help and version on standard output, a
// usage error on standard error.
struct ParsedCommandLine {
  std::optional<CommandLine> commandLine;
  ExitCode exitCode = ExitCode::success;
  std::string output;
  std::string error;
};

ParsedCommandLine parseCommandLine(int argc, const char* const* argv);

}  // namespace quillsift
