#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/linux/FileReading.h"
#include "platform/linux/LinuxSystemConsole.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

std::string contentOf(const std::string& path) {
  const auto content = readSmallFile(path);
  return content ? std::string(content->text()) : "(unreadable)";
}

// The reading end of a terminal; invalid where there are none.
FileDescriptor openTerminal() {
  FileDescriptor terminal(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (terminal.valid() && (::grantpt(terminal.get()) != 0 || ::unlockpt(terminal.get()) != 0)) {
    terminal.reset();
  }
  return terminal;
}

TEST(LinuxSystemConsoleTest, AppendsToTheConsoleOfTheTree) {
  const ScratchTree scratch;
  const std::string console = scratch.write("dev/console", "before\n");
  LinuxSystemConsole systemConsole(scratch.tree());
  systemConsole.write("one\n");
  systemConsole.write(std::string_view("t\0o\n", 4));
  EXPECT_EQ(contentOf(console), std::string("before\none\nt\0o\n", 15));
}

TEST(LinuxSystemConsoleTest, StaysWithTheConsoleItOpened) {
  const ScratchTree scratch;
  scratch.write("dev/console", "");
  LinuxSystemConsole systemConsole(scratch.tree());
  systemConsole.write("one\n");
  std::filesystem::rename(scratch.at("dev/console"), scratch.at("dev/old"));
  scratch.write("dev/console", "");
  systemConsole.write("two\n");
  EXPECT_EQ(contentOf(scratch.at("dev/old")), "one\ntwo\n");
  EXPECT_EQ(contentOf(scratch.at("dev/console")), "");
}

TEST(LinuxSystemConsoleTest, SwallowsEverythingWithoutAConsole) {
  const ScratchTree scratch;
  scratch.link("dev/console", "/dev/null");
  LinuxSystemConsole systemConsole(scratch.tree());
  systemConsole.write("one\n");
  std::filesystem::remove(scratch.at("dev/console"));
  scratch.write("dev/console", "");
  systemConsole.write("two\n");
  EXPECT_EQ(contentOf(scratch.at("dev/console")), "");
}

TEST(LinuxSystemConsoleTest, NeverMakesAConsole) {
  const ScratchTree scratch;
  scratch.link("dev/console", scratch.at("nowhere/console"));
  scratch.makeDirectory("nowhere");
  scratch.makeDirectory("dev/console.d");
  LinuxSystemConsole(scratch.tree()).write("");
  EXPECT_FALSE(std::filesystem::exists(scratch.at("nowhere/console")));
}

TEST(LinuxSystemConsoleTest, WritesToATerminal) {
  const ScratchTree scratch;
  const FileDescriptor terminal = openTerminal();
  if (!terminal.valid()) GTEST_SKIP() << "no pseudo terminals here";
  scratch.link("dev/console", ::ptsname(terminal.get()));
  LinuxSystemConsole systemConsole(scratch.tree());
  systemConsole.write("line");
  char line[10] = {};
  EXPECT_EQ(::read(terminal.get(), line, sizeof line), 4);
  EXPECT_STREQ(line, "line");
}

TEST(LinuxSystemConsoleTest, DoesNotWaitForATerminalThatNobodyReads) {
  const ScratchTree scratch;
  const FileDescriptor terminal = openTerminal();
  if (!terminal.valid()) GTEST_SKIP() << "no pseudo terminals here";
  scratch.link("dev/console", ::ptsname(terminal.get()));
  LinuxSystemConsole systemConsole(scratch.tree());
  for (int i = 0; i < 100; ++i)  // far beyond what the kernel keeps for it
    systemConsole.write(std::string(10'000, 'x'));
}

TEST(LinuxSystemConsoleTest, DoesNotWaitForAConsoleToBeThere) {
  const ScratchTree scratch;
  scratch.makeDirectory("dev");
  ASSERT_EQ(::mkfifo(scratch.at("dev/console").c_str(), 0600), 0);
  LinuxSystemConsole(scratch.tree()).write("line");
}

}  // namespace
}  // namespace quillsift
