#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quillsift {

// Domain of errors whose code is an errno value.
inline constexpr const char* kPOSIXErrorDomain = "POSIX";

// Why something failed. A default-made QSError is "no error": functions take a `QSError*` as their
// last parameter (null when the caller does not care) and fill it only when they fail.
struct QSError {
  std::string domain;
  std::int64_t code = 0;
  std::optional<std::string> localizedDescription;
  std::optional<std::string> filePath;
  std::shared_ptr<const QSError> underlying;
  std::vector<QSError> errors;  // of the parts of what failed; not in the description

  explicit operator bool() const { return !domain.empty(); }

  // Domain, code and all the rest on one line, for example
  //   POSIX 2: No such file or directory (path: /var/log/system.log)
  //   QSJobErrorDomain 3 (caused by POSIX 5: Input/output error)
  // "(null)" for no error.
  std::string description() const;

  // `code` is an errno value; its system text is the description.
  static QSError posix(int code, std::optional<std::string> filePath = std::nullopt);
};

// Stores `error` where the caller asked for it.
void setError(QSError* out, QSError error);

}  // namespace quillsift
