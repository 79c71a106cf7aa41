#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/LinuxChildProcess.h"
#include "platform/linux/LinuxProcessLauncher.h"
#include "tests/platform/linux/Gate.h"
#include "tests/platform/linux/ResourceLimit.h"

namespace quillsift {
namespace {

// Waits until the child has ended, without reaping it.
void waitForZombie(pid_t child) {
  siginfo_t status{};
  EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(child), &status, WEXITED | WNOWAIT), 0);
}

void waitForStop(pid_t child) {
  siginfo_t status{};
  EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(child), &status, WSTOPPED | WNOWAIT), 0);
}

bool isOurChild(pid_t process) {
  siginfo_t status{};
  return ::waitid(P_PID, static_cast<id_t>(process), &status, WEXITED | WNOHANG | WNOWAIT) == 0;
}

class LinuxChildProcessTest : public testing::Test {
 protected:
  std::shared_ptr<ChildProcess> launch(std::string path, std::vector<std::string> arguments) {
    QSError error;
    auto child = launcher_.launch(
        {.executablePath = std::move(path), .arguments = std::move(arguments)}, &error);
    EXPECT_NE(child, nullptr) << error.description();
    return child;
  }
  std::shared_ptr<ChildProcess> shell(std::string script) {
    return launch("/bin/sh", {"-c", std::move(script)});
  }
  std::shared_ptr<ChildProcess> flood(std::uint64_t length) {
    return launch(QUILLSIFT_FLOOD_OUTPUT, {std::to_string(length), "65536"});
  }

  LinuxProcessLauncher launcher_{[](const std::string& path) { return path; }};
};

void expectFlood(const QSData& data, std::uint64_t length) {
  ASSERT_EQ(data.length(), length);
  // Piece by piece: a second copy of the longest would be too much for a small machine.
  constexpr std::uint64_t kPiece = 65536;
  std::vector<std::uint64_t> words(kPiece / 8);
  for (std::uint64_t offset = 0; offset < length; offset += kPiece) {
    const std::uint64_t count = std::min(kPiece, length - offset);
    for (std::uint64_t index = 0; index < count / 8; ++index)
      words[index] = offset / 8 + index;
    ASSERT_EQ(std::memcmp(data.bytes().data() + offset, words.data(), count), 0) << offset;
  }
}

TEST_F(LinuxChildProcessTest, KeepsEveryByteOfAFlood) {
  for (const std::uint64_t length : {65536U, 65544U, 1048576U, 1048584U, 268435456U}) {
    const auto child = flood(length);
    expectFlood(child->readOutputToEnd(), length);
    EXPECT_EQ(child->waitUntilExit(), 0);
  }
}

TEST_F(LinuxChildProcessTest, RunsUntilItIsReaped) {
  const auto child = shell("exit 7");
  EXPECT_GT(child->processIdentifier(), 0);
  waitForZombie(child->processIdentifier());
  EXPECT_TRUE(child->isRunning());
  EXPECT_EQ(child->waitUntilExit(), 7);
  EXPECT_FALSE(child->isRunning());
  EXPECT_EQ(child->waitUntilExit(), 7);
}

TEST_F(LinuxChildProcessTest, ASignalIsItsNumber) {
  EXPECT_EQ(shell("kill -TERM $$")->waitUntilExit(), SIGTERM);
  EXPECT_EQ(shell("kill -KILL $$")->waitUntilExit(), SIGKILL);
}

TEST_F(LinuxChildProcessTest, OutputEndsOnce) {
  const auto child = shell("echo once");
  EXPECT_EQ(child->readOutputToEnd().text(), "once\n");
  EXPECT_EQ(child->readOutputToEnd().length(), 0U);
  EXPECT_EQ(child->waitUntilExit(), 0);
}

TEST_F(LinuxChildProcessTest, AKilledChildKeepsWhatItPrinted) {
  const auto child = shell("echo before; kill -STOP $$; echo never");
  waitForStop(child->processIdentifier());
  child->kill();
  EXPECT_EQ(child->readOutputToEnd().text(), "before\n");
  EXPECT_EQ(child->waitUntilExit(), SIGKILL);
}

TEST_F(LinuxChildProcessTest, KillsAHangingChildThatAnotherThreadReads) {
  const auto child = launch("/bin/sleep", {"1000"});
  int status = 0;
  std::thread owner([&] {
    EXPECT_EQ(child->readOutputToEnd().length(), 0U);
    status = child->waitUntilExit();
  });
  child->kill();
  owner.join();
  EXPECT_EQ(status, SIGKILL);
}

// A child whose own child holds the output open until somebody writes to the fifo.
class LeftOpenOutputTest : public LinuxChildProcessTest {
 protected:
  LeftOpenOutputTest() { EXPECT_EQ(::mkfifo(fifo_.c_str(), 0600), 0); }
  ~LeftOpenOutputTest() override { std::filesystem::remove(fifo_); }

  void letGrandchildEnd() { std::ofstream(fifo_) << "go\n"; }

  const std::string fifo_ = testing::TempDir() + "let-grandchild-end-" + std::to_string(::getpid());
};

TEST_F(LeftOpenOutputTest, ReadsUntilTheLastHolderHasClosedIt) {
  const auto child = shell("(read line < " + fifo_ + "; echo second) & echo first; exit 6");
  std::atomic<bool> ended = false;
  std::string output;
  std::thread owner([&] {
    output = child->readOutputToEnd().text();
    ended = true;
  });
  waitForZombie(child->processIdentifier());
  EXPECT_FALSE(ended);
  letGrandchildEnd();
  owner.join();
  EXPECT_EQ(output, "first\nsecond\n");
  EXPECT_EQ(child->waitUntilExit(), 6);
}

TEST_F(LeftOpenOutputTest, KillsTheChildAlone) {
  const auto child = shell("(read line < " + fifo_ + "; echo second) & echo first; kill -STOP $$");
  waitForStop(child->processIdentifier());
  child->kill();
  waitForZombie(child->processIdentifier());
  letGrandchildEnd();
  EXPECT_EQ(child->readOutputToEnd().text(), "first\nsecond\n");
  EXPECT_EQ(child->waitUntilExit(), SIGKILL);
}

TEST_F(LinuxChildProcessTest, KillAfterTheEndIsHarmless) {
  const auto child = shell("exit 0");
  waitForZombie(child->processIdentifier());
  child->kill();
  EXPECT_EQ(child->waitUntilExit(), 0);
  child->kill();
  EXPECT_FALSE(child->isRunning());
}

TEST_F(LinuxChildProcessTest, ManyThreadsMayKillWhileTheOwnerReaps) {
  for (int round = 0; round < 50; ++round) {
    const auto child = shell("exit 0");
    Gate go;
    std::vector<std::thread> killers;
    for (int thread = 0; thread < 4; ++thread) {
      killers.emplace_back([&] {
        go.pass();
        while (child->isRunning())
          child->kill();
      });
    }
    go.open();
    const int status = child->waitUntilExit();
    EXPECT_TRUE(status == 0 || status == SIGKILL) << status;
    for (std::thread& killer : killers)
      killer.join();
  }
}

TEST_F(LinuxChildProcessTest, DestructionKillsAndReaps) {
  auto child = launch("/bin/sleep", {"1000"});
  const pid_t process = child->processIdentifier();
  EXPECT_TRUE(isOurChild(process));
  child.reset();
  EXPECT_FALSE(isOurChild(process));
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(LinuxChildProcessTest, AChildThatFillsTheMemoryIsKilledAndReaped) {
  const auto before = std::signal(SIGXFSZ, SIG_IGN);
  auto child = flood(std::uint64_t{1} << 40);
  const pid_t process = child->processIdentifier();
  {
    const ResourceLimit smallFiles(RLIMIT_FSIZE, 4 * 1024 * 1024);
    EXPECT_THROW(child->readOutputToEnd(), std::bad_alloc);
  }
  child.reset();
  EXPECT_FALSE(isOurChild(process));
  std::signal(SIGXFSZ, before);
}

// The same promises where the host grants no process descriptor.
class ChildWithoutDescriptorTest : public testing::Test {
 protected:
  static std::unique_ptr<LinuxChildProcess> launch(std::vector<const char*> arguments) {
    pid_t process = 0;
    arguments.push_back(nullptr);
    EXPECT_EQ(::posix_spawn(&process, arguments[0], nullptr, nullptr,
                            const_cast<char* const*>(arguments.data()), environ),
              0);
    auto child = std::make_unique<LinuxChildProcess>(FileDescriptor());
    const DescriptorShortage none(0);
    child->adopt(process);
    return child;
  }
};

TEST_F(ChildWithoutDescriptorTest, IsKilledAndWaitedFor) {
  const auto child = launch({"/bin/sleep", "1000"});
  EXPECT_TRUE(child->isRunning());
  child->kill();
  EXPECT_EQ(child->waitUntilExit(), SIGKILL);
  EXPECT_FALSE(child->isRunning());
  child->kill();
  EXPECT_EQ(child->readOutputToEnd().length(), 0U);
}

TEST_F(ChildWithoutDescriptorTest, ExitsWithItsCode) {
  EXPECT_EQ(launch({"/bin/sh", "-c", "exit 9"})->waitUntilExit(), 9);
}

TEST_F(ChildWithoutDescriptorTest, IsReapedByDestruction) {
  auto child = launch({"/bin/sleep", "1000"});
  const pid_t process = child->processIdentifier();
  child.reset();
  EXPECT_FALSE(isOurChild(process));
}

}  // namespace
}  // namespace quillsift
