#include "codiagnose/QSCorvaneDiagnoseError.h"

namespace quillsift {

QSError QSCorvaneDiagnoseError::errorWithCode(std::int64_t code, const QSError& userInfo) {
  QSError error = userInfo;
  error.domain = kQSCorvaneErrorDomain;
  error.code = code;
  error.localizedDescription = errorStringWithCode(code);
  return error;
}

std::string QSCorvaneDiagnoseError::errorStringWithCode(std::int64_t code) {
  switch (code) {
    case QSCorvaneErrorUnknown:
      return "Unknown error.";
    case QSCorvaneErrorNoDevice:
      return "This device is not a Tessel Lumina.";
    case QSCorvaneErrorNotConnected:
      return "Co-omnitrawl for Corvane is not possible, the remote device is not connected.";
    case QSCorvaneErrorNoService:
      return "Co-omnitrawl for Corvane is not possible, cannot get service for device.";
    case QSCorvaneErrorNoConnection:
      return "Co-omnitrawl for Corvane is not possible, cannot construct remote connection to "
             "remote device.";
    case QSCorvaneErrorAlreadyRunning:
      return "Operation failed because a Corvane diagnose is currently running.";
    default:
      return "Invalid error";
  }
}

}  // namespace quillsift
