#pragma once

#include <string>

#include "client/ServiceError.h"

namespace quillsift {

// What `quillsift` ends with. Scripts depend on the numbers.
enum class ExitCode : int {
  success = 0,
  failed = 1,    // also: interrupted, the session cleared by somebody else, output closed
  usage = 2,     // the command line
  noDaemon = 3,  // none listens, it does not admit us, or it went away
  refused = 4,   // a session or a save is running
};

// How a command ended: `failure` says why it did not succeed, for a person, without full stop.
struct Ending {
  ExitCode code = ExitCode::success;
  std::string failure;
};

Ending endingOf(const ServiceError& error);

// Why nothing more can be shown; `error` is an errno value.
std::string outputFailureText(int error);

}  // namespace quillsift
