#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

#include "platform/QSError.h"

namespace quillsift {
namespace {

TEST(QSErrorTest, IsNoErrorByItself) {
  const QSError error;
  EXPECT_FALSE(error);
  EXPECT_EQ(error.description(), "(null)");
}

TEST(QSErrorTest, AnErrorOfTheHostCarriesItsTextAndPath) {
  const QSError error = QSError::posix(ENOENT, "/var/log/system.log");
  EXPECT_TRUE(error);
  EXPECT_EQ(error.domain, kPOSIXErrorDomain);
  EXPECT_EQ(error.code, ENOENT);
  EXPECT_EQ(error.description(), "POSIX 2: No such file or directory (path: /var/log/system.log)");
  EXPECT_EQ(QSError::posix(EIO).description(), "POSIX 5: Input/output error");
}

TEST(QSErrorTest, AnErrorWithoutAnyTextIsDomainAndCode) {
  QSError error;
  error.domain = "QSJobErrorDomain";
  error.code = -3;
  EXPECT_EQ(error.description(), "QSJobErrorDomain -3");
}

TEST(QSErrorTest, DescribesEveryCauseDownToTheFirst) {
  QSError middle;
  middle.domain = "Middle";
  middle.code = 2;
  middle.underlying = std::make_shared<const QSError>(QSError::posix(EIO, "/a"));
  QSError error;
  error.domain = "Top";
  error.code = 1;
  error.localizedDescription = "text";
  error.filePath = "/b";
  error.underlying = std::make_shared<const QSError>(middle);
  EXPECT_EQ(error.description(),
            "Top 1: text (path: /b) (caused by Middle 2 "
            "(caused by POSIX 5: Input/output error (path: /a)))");
}

TEST(QSErrorTest, IsStoredOnlyWhereTheCallerAskedForIt) {
  QSError error;
  setError(&error, QSError::posix(EIO));
  EXPECT_EQ(error.code, EIO);
  setError(nullptr, QSError::posix(EIO));
}

}  // namespace
}  // namespace quillsift
