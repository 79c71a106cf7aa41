#include "platform/QSError.h"

#include <utility>

#include "platform/Text.h"

namespace quillsift {

std::string QSError::description() const {
  if (!*this) return "(null)";
  std::string text = domain + " " + std::to_string(code);
  if (localizedDescription) text += ": " + *localizedDescription;
  if (filePath) text += " (path: " + *filePath + ")";
  if (underlying) text += " (caused by " + underlying->description() + ")";
  return text;
}

QSError QSError::posix(int code, std::optional<std::string> filePath) {
  QSError error;
  error.domain = kPOSIXErrorDomain;
  error.code = code;
  error.localizedDescription = systemErrorText(code);
  error.filePath = std::move(filePath);
  return error;
}

void setError(QSError* out, QSError error) {
  if (out != nullptr) *out = std::move(error);
}

}  // namespace quillsift
