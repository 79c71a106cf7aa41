#pragma once

#include <cstdint>
#include <string>

#include "platform/QSError.h"

namespace quillsift {

inline constexpr const char* kQSCorvaneErrorDomain = "QSCorvaneErrorDomain";
enum QSCorvaneErrorCode : std::int64_t {
  QSCorvaneErrorUnknown = 0,
  QSCorvaneErrorNoDevice = 1,
  QSCorvaneErrorNotConnected = 2,
  QSCorvaneErrorNoService = 3,
  QSCorvaneErrorNoConnection = 4,
  QSCorvaneErrorAlreadyRunning = 5,
};

// Makes the errors of the co-diagnose.
class QSCorvaneDiagnoseError {
 public:
  QSCorvaneDiagnoseError() = delete;

  // An error of the code with its message; path and cause are those of `userInfo`.
  static QSError errorWithCode(std::int64_t code, const QSError& userInfo = {});
  // The message of a code, "Invalid error" for one that is not ours.
  static std::string errorStringWithCode(std::int64_t code);
};

}  // namespace quillsift
