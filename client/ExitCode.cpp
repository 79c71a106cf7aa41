#include "client/ExitCode.h"

#include "platform/Text.h"

namespace quillsift {

Ending endingOf(const ServiceError& error) {
  using Kind = ServiceError::Kind;
  switch (error.kind) {
    case Kind::noDaemon:
    case Kind::notAdmitted:
    case Kind::disconnected:
      return {ExitCode::noDaemon, error.text};
    case Kind::none:
    case Kind::timedOut:
    case Kind::failed:
      break;
  }
  return {ExitCode::failed, error.text};
}

std::string outputFailureText(int error) {
  return "cannot write to standard output: " + systemErrorText(error);
}

}  // namespace quillsift
