#include <gtest/gtest.h>

#include <memory>

#include "codiagnose/QSCorvaneDiagnoseError.h"

namespace quillsift {
namespace {

TEST(QSCorvaneDiagnoseErrorTest, HasAMessageForEachCode) {
  const auto text = QSCorvaneDiagnoseError::errorStringWithCode;
  EXPECT_EQ(text(0), "Unknown error.");
  EXPECT_EQ(text(1), "This device is not a Tessel Lumina.");
  EXPECT_EQ(text(2),
            "Co-omnitrawl for Corvane is not possible, the remote device is not connected.");
  EXPECT_EQ(text(3), "Co-omnitrawl for Corvane is not possible, cannot get service for device.");
  EXPECT_EQ(text(4),
            "Co-omnitrawl for Corvane is not possible, cannot construct remote connection to "
            "remote device.");
  EXPECT_EQ(text(5), "Operation failed because a Corvane diagnose is currently running.");
}

TEST(QSCorvaneDiagnoseErrorTest, CallsEveryOtherCodeInvalid) {
  EXPECT_EQ(QSCorvaneDiagnoseError::errorStringWithCode(6), "Invalid error");
  EXPECT_EQ(QSCorvaneDiagnoseError::errorStringWithCode(-1), "Invalid error");
}

TEST(QSCorvaneDiagnoseErrorTest, MakesAnErrorOfItsDomain) {
  const QSError error = QSCorvaneDiagnoseError::errorWithCode(5);
  EXPECT_EQ(error.domain, "QSCorvaneErrorDomain");
  EXPECT_EQ(error.code, 5);
  EXPECT_EQ(error.localizedDescription,
            "Operation failed because a Corvane diagnose is currently running.");
  EXPECT_EQ(error.filePath, std::nullopt);
  EXPECT_EQ(error.underlying, nullptr);
}

TEST(QSCorvaneDiagnoseErrorTest, KeepsPathAndCauseOfTheUserInformation) {
  QSError information = QSError::posix(5, "/dev/companion");
  information.underlying = std::make_shared<const QSError>(QSError::posix(6));
  const QSError error = QSCorvaneDiagnoseError::errorWithCode(4, information);
  EXPECT_EQ(error.domain, "QSCorvaneErrorDomain");
  EXPECT_EQ(error.code, 4);
  EXPECT_EQ(error.localizedDescription, QSCorvaneDiagnoseError::errorStringWithCode(4));
  EXPECT_EQ(error.filePath, "/dev/companion");
  ASSERT_NE(error.underlying, nullptr);
  EXPECT_EQ(error.underlying->code, 6);
}

}  // namespace
}  // namespace quillsift
