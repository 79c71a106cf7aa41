#pragma once

#include <string>

#include "platform/QSError.h"

namespace quillsift {

// Why a call to the daemon failed, sorted by what a client does about it.
struct ServiceError {
  enum class Kind {
    none,
    noDaemon,      // nobody listens at the socket
    notAdmitted,   // the daemon does not serve this user
    disconnected,  // the connection broke after it had been made
    timedOut,      // no answer yet; the daemon may still carry the request out
    failed,        // the daemon answered with an error, or with what cannot be read
  };

  Kind kind = Kind::none;
  std::string text;  // for a person: a clause without full stop

  static ServiceError ofConnecting(const std::string& socketPath, const QSError& error);
  static ServiceError ofCalling(const std::string& method, const QSError& error);
  static ServiceError unreadableAnswer(const std::string& method);
  static ServiceError connectionBroke();
};

}  // namespace quillsift
