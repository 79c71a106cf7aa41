#include "client/ServiceError.h"

#include <cerrno>

#include "platform/Text.h"

namespace quillsift {

namespace {

std::string reasonOf(const QSError& error) {
  return error.localizedDescription ? *error.localizedDescription : error.description();
}

bool isPOSIX(const QSError& error) {
  return error.domain == kPOSIXErrorDomain;
}

bool meansDisconnected(std::int64_t code) {
  return code == ECONNRESET || code == ECONNABORTED || code == ENOTCONN || code == EPIPE ||
         code == ESHUTDOWN;
}

}  // namespace

ServiceError ServiceError::ofConnecting(const std::string& socketPath, const QSError& error) {
  if (isPOSIX(error) && (error.code == EACCES || error.code == EPERM)) {
    return {Kind::notAdmitted,
            "the daemon at " + socketPath +
                " does not admit this user: be root, the daemon's own user or in the group "
                "quillsift"};
  }
  return {Kind::noDaemon, "no daemon answers at " + socketPath + ": " + reasonOf(error)};
}

ServiceError ServiceError::ofCalling(const std::string& method, const QSError& error) {
  if (isPOSIX(error) && error.code == ETIMEDOUT) {
    return {Kind::timedOut, "the daemon is busy and has not answered " + method + " yet"};
  }
  if (isPOSIX(error) && meansDisconnected(error.code)) return connectionBroke();
  return {Kind::failed, "the daemon could not carry out " + method + ": " + reasonOf(error)};
}

ServiceError ServiceError::unreadableAnswer(const std::string& method) {
  return {Kind::failed, "the daemon's answer to " + method + " cannot be read"};
}

ServiceError ServiceError::connectionBroke() {
  return {Kind::disconnected, "the connection to the daemon broke"};
}

}  // namespace quillsift
