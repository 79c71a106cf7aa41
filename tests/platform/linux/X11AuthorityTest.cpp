#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <limits>

#include "platform/linux/FileReading.h"
#include "platform/linux/X11Authority.h"
#include "platform/linux/X11ServerCookie.h"
#include "tests/platform/linux/RunningProgram.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

using namespace std::string_literals;

constexpr const char* kAddress = "rescue";

std::string field(const std::string& text) {
  return std::string{static_cast<char>(text.size() >> 8), static_cast<char>(text.size())} + text;
}
std::string entry(const std::string& name, const std::string& data) {
  return "\1\0"s + field(kAddress) + field("0") + field(name) + field(data);
}

TEST(X11AuthorityTest, FindsTheFileInTheArguments) {
  EXPECT_EQ(authorityFileIn("Xorg\0:0\0-auth\0/run/lightdm/:0\0vt7\0"s), "/run/lightdm/:0");
  EXPECT_EQ(authorityFileIn("Xorg\0-auth\0/run/auth"s), "/run/auth");
  EXPECT_EQ(authorityFileIn("Xorg\0:0\0"s), std::nullopt);
  EXPECT_EQ(authorityFileIn("Xorg\0-auth\0"s), std::nullopt);
  EXPECT_EQ(authorityFileIn("Xorg\0-auth\0relative\0"s), std::nullopt);
  EXPECT_EQ(authorityFileIn("Xorg\0-authority\0/run/auth\0"s), std::nullopt);
  EXPECT_EQ(authorityFileIn(""), std::nullopt);
}

TEST(X11AuthorityTest, TakesTheFirstMagicCookie) {
  const std::string cookie(16, '\xC0');
  const std::string file = entry("XDM-AUTHORIZATION-1", "other") +
                           entry("MIT-MAGIC-COOKIE-1", cookie) +
                           entry("MIT-MAGIC-COOKIE-1", "later");
  EXPECT_EQ(magicCookieIn(file), cookie);
  const std::string longName(300, 'n');
  EXPECT_EQ(magicCookieIn(entry(longName, "") + entry("MIT-MAGIC-COOKIE-1", cookie)), cookie);
}

TEST(X11AuthorityTest, FindsNoCookieInAFileThatMakesNoSense) {
  EXPECT_EQ(magicCookieIn(""), std::nullopt);
  EXPECT_EQ(magicCookieIn(entry("XDM-AUTHORIZATION-1", "other")), std::nullopt);
  const std::string whole = entry("MIT-MAGIC-COOKIE-1", "cookie");
  for (std::size_t length = 0; length < whole.size(); ++length)
    EXPECT_EQ(magicCookieIn(whole.substr(0, length)), std::nullopt) << length;
  EXPECT_EQ(magicCookieIn(std::string(1000, '\xFF')), std::nullopt);
}

class CookieOfServerTest : public ::testing::Test {
 protected:
  void argumentsName(const std::string& path) {
    scratch.write("proc/123/cmdline", "Xorg\0-auth\0"s + path + "\0"s);
  }
  std::optional<std::string> cookie(uid_t user, pid_t process = 123) const {
    return cookieOfServer({.processIdentifier = process, .userIdentifier = user}, *scratch.tree());
  }

  const ScratchTree scratch;
  const uid_t self = ::geteuid();
  const std::string file = scratch.write("auth", entry("MIT-MAGIC-COOKIE-1", "cookie"));
};

TEST_F(CookieOfServerTest, IsReadFromTheFileThatItsArgumentsName) {
  argumentsName(file);
  EXPECT_EQ(cookie(self), "cookie");
}

TEST_F(CookieOfServerTest, IsLookedUpInTheTree) {
  argumentsName("/auth");
  EXPECT_EQ(cookie(self), "cookie");
}

TEST_F(CookieOfServerTest, IsNotTakenFromSomebodyElse) {
  argumentsName(file);
  EXPECT_EQ(cookie(self + 1), std::nullopt);
  EXPECT_EQ(cookie(0), "cookie");  // root may name any file
}

TEST_F(CookieOfServerTest, IsReadFromRegularFilesOnly) {
  ASSERT_EQ(::mkfifo(scratch.at("fifo").c_str(), 0600), 0);
  for (const std::string& path :
       {scratch.at("fifo"), scratch.directory(), "/dev/zero"s, scratch.at("none")}) {
    argumentsName(path);
    EXPECT_EQ(cookie(0), std::nullopt);
  }
}

TEST_F(CookieOfServerTest, IsNotReadFromAHugeFile) {
  argumentsName(file);
  ASSERT_EQ(::truncate(file.c_str(), 2 * 1024 * 1024), 0);
  EXPECT_EQ(cookie(self), std::nullopt);
}

TEST_F(CookieOfServerTest, IsNotReadFromAFileWithoutEnd) {
  argumentsName("/proc/self/pagemap");
  EXPECT_EQ(cookie(self), std::nullopt);
}

TEST_F(CookieOfServerTest, IsNotReadFromTheKernelsWordsAboutAProcess) {
  // Arguments that are an authority file as well: the first of them are its family and address.
  const std::string script = "echo $$; kill -STOP $$";
  constexpr std::size_t kAddressLength = '-';
  const std::string padding(kAddressLength - "c\0"s.size() - script.size() - 2, 'x');
  testing::RunningProgram server(
      {"sh", "-c", script, padding, "", "\1x", "\22MIT-MAGIC-COOKIE-1", "\6cookie"});
  ASSERT_TRUE(server.waitForOutput("\n"));
  const std::string words = "/proc/" + server.output().substr(0, server.output().find('\n'));
  ASSERT_EQ(magicCookieIn(readSmallFile(words + "/cmdline")->text()), "cookie");
  argumentsName(words + "/cmdline");
  EXPECT_EQ(cookie(self), std::nullopt);
}

TEST_F(CookieOfServerTest, IsUnknownWithoutAProcess) {
  EXPECT_EQ(cookie(self, 0), std::nullopt);
  EXPECT_EQ(cookie(self, std::numeric_limits<pid_t>::max()), std::nullopt);
}

}  // namespace
}  // namespace quillsift
