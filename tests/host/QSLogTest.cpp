#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "host/QSLog.h"
#include "tests/doubles/TestPlatform.h"

namespace quillsift {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::SizeIs;

class QSLogTest : public testing::Test {
 protected:
  QSLogTest() { setExecutable("/usr/libexec/quillsiftd"); }

  void setExecutable(const std::string& path) {
    platform_.hostInformation().setExecutablePath(::getpid(), path);
  }
  // A console line of this process under a name.
  static std::string line(const std::string& name, const std::string& message) {
    return name + "[" + std::to_string(::getpid()) + "]: " + message + "\n";
  }
  std::vector<std::string> console() { return platform_.systemConsole().writes(); }

  TestPlatform platform_;
};

TEST_F(QSLogTest, WritesToTheSystemLogAndToTheConsole) {
  QSLog(kLogError, 1, "mount('%s') failed: %d", "/dev/sda1", 22);
  EXPECT_THAT(platform_.systemLog().lines(),
              ElementsAre(LogLine{115, "mount('/dev/sda1') failed: 22"}));
  EXPECT_THAT(console(), ElementsAre(line("quillsiftd", "mount('/dev/sda1') failed: 22")));
}

TEST_F(QSLogTest, AddsTheInstallationFacilityToThePriority) {
  QSLog(kLogWarning, 1, "a");
  QSLog(kLogInfo, 1, "b");
  EXPECT_THAT(platform_.systemLog().lines(), ElementsAre(LogLine{116, "a"}, LogLine{118, "b"}));
}

TEST_F(QSLogTest, WritesToTheConsoleWhateverTheSwitchSays) {
  QSLog(kLogError, 0, "a");
  QSLog(kLogError, 1, "a");
  QSLog(kLogError, -1, "a");
  EXPECT_THAT(console(), SizeIs(3));
  EXPECT_THAT(console(), Each(line("quillsiftd", "a")));
}

TEST_F(QSLogTest, FormatsAMessageOnlyOnce) {
  setExecutable("/opt/100%s%n/quill%dsift%%");
  QSLog(kLogError, 1, "%s", "50%s %n %d%%");
  EXPECT_THAT(platform_.systemLog().messages(), ElementsAre("50%s %n %d%%"));
  EXPECT_THAT(console(), ElementsAre(line("quill%dsift%%", "50%s %n %d%%")));
}

TEST_F(QSLogTest, CallsAProcessItCannotNameUnknown) {
  setExecutable("");
  QSLog(kLogError, 1, "a");
  EXPECT_THAT(console(), ElementsAre(line("Unknown_Quillsift_Process", "a")));
}

TEST_F(QSLogTest, NamesTheProcessWithinALimitOf1024Bytes) {
  setExecutable("/" + std::string(1020, 'd') + "/name");
  QSLog(kLogError, 1, "a");
  EXPECT_THAT(console(), ElementsAre(line("na", "a")));
}

TEST_F(QSLogTest, CutsTheConsoleLineToItsLengthInUTF16) {
  QSLog(kLogError, 1, "caf\xC3\xA9 bar");
  EXPECT_THAT(platform_.systemLog().messages(), ElementsAre("caf\xC3\xA9 bar"));
  // One character of two bytes is one unit: the newline is lost.
  std::string whole = line("quillsiftd", "caf\xC3\xA9 bar");
  EXPECT_THAT(console(), ElementsAre(whole.substr(0, whole.size() - 1)));
}

TEST_F(QSLogTest, CountsPairsAndInvalidBytesAsUTF16Does) {
  const auto lost = [this](const std::string& message) {
    QSLog(kLogError, 1, "%s", message.c_str());
    EXPECT_EQ(platform_.systemLog().messages().back(), message);
    const std::string whole = line("quillsiftd", message);
    const std::string written = console().back();
    EXPECT_TRUE(whole.starts_with(written));
    return whole.size() - written.size();
  };
  EXPECT_EQ(lost("plain"), 0u);
  EXPECT_EQ(lost("\xE2\x82\xAC\xE2\x82\xAC"), 4u);  // two characters of three bytes
  EXPECT_EQ(lost("\xF0\x9F\x93\x9D"), 2u);          // four bytes, a pair
  EXPECT_EQ(lost("\xFF\xC3\x80\x80"), 1u);          // FF, U+00C0, 80
  EXPECT_EQ(lost("\xED\xA0\x80"), 0u);              // a surrogate is three invalid bytes
  EXPECT_EQ(lost(std::string(100, '\x80')), 0u);
}

TEST_F(QSLogTest, CutsInTheMiddleOfACharacter) {
  QSLog(kLogError, 1, "\xC3\xA9\xC3\xA9");
  const std::string whole = line("quillsiftd", "\xC3\xA9\xC3\xA9");
  EXPECT_THAT(console(), ElementsAre(whole.substr(0, whole.size() - 2)));
  EXPECT_EQ(console().back().back(), '\xC3');
}

TEST_F(QSLogTest, KeepsErrno) {
  platform_.systemConsole().setErrnoAfterWrite(EBADF);
  errno = ENODATA;
  QSLog(kLogError, 1, "message");
  EXPECT_EQ(errno, ENODATA);
  EXPECT_THAT(platform_.systemLog().messages(), ElementsAre("message"));
}

TEST_F(QSLogTest, WritesMessagesOfAnyLength) {
  const std::string message(100'000, 'x');
  QSLog(kLogError, 1, "%s", message.c_str());
  QSLog(kLogError, 1, "%s", "");
  EXPECT_THAT(platform_.systemLog().messages(), ElementsAre(message, ""));
  EXPECT_THAT(console(), ElementsAre(line("quillsiftd", message), line("quillsiftd", "")));
}

TEST_F(QSLogTest, MayBeCalledFromManyThreads) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([] {
      for (int j = 0; j < 100; ++j)
        QSLog(kLogInfo, 1, "message");
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_THAT(platform_.systemLog().lines(), SizeIs(800));
  EXPECT_THAT(console(), SizeIs(800));
  EXPECT_THAT(console(), Each(line("quillsiftd", "message")));
}

}  // namespace
}  // namespace quillsift
