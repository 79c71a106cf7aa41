#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/LinuxProcessLauncher.h"
#include "platform/linux/LinuxWorkQueues.h"
#include "platform/linux/SchedulingClass.h"
#include "tests/platform/linux/ResourceLimit.h"

namespace quillsift {
namespace {

using testing::HasSubstr;

struct Outcome {
  std::string output;
  int exitCode = -1;
};

class LinuxProcessLauncherTest : public testing::Test {
 protected:
  static LaunchRequest requestFor(std::string path, std::vector<std::string> arguments = {}) {
    return {.executablePath = std::move(path), .arguments = std::move(arguments)};
  }
  static LaunchRequest shell(std::string script) { return requestFor("/bin/sh", {"-c", script}); }

  std::shared_ptr<ChildProcess> launch(const LaunchRequest& request) {
    QSError error;
    auto child = launcher_->launch(request, &error);
    EXPECT_NE(child, nullptr) << error.description();
    EXPECT_FALSE(error) << error.description();
    return child;
  }

  Outcome run(const LaunchRequest& request) {
    const auto child = launch(request);
    Outcome outcome;
    outcome.output = child->readOutputToEnd().text();
    outcome.exitCode = child->waitUntilExit();
    return outcome;
  }

  // One line of what print_inheritance says, without its name.
  std::string inherited(const std::string& thing, QOSClass qos = QOSClass::standard) {
    LaunchRequest request = requestFor(QUILLSIFT_PRINT_INHERITANCE);
    request.qos = qos;
    std::istringstream lines(run(request).output);
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with(thing)) return line.substr(std::min(line.size(), thing.size() + 1));
    }
    return "not printed";
  }

  void expectLaunchError(const LaunchRequest& request, int code) {
    QSError error;
    EXPECT_EQ(launcher_->launch(request, &error), nullptr);
    EXPECT_EQ(error.domain, kPOSIXErrorDomain);
    EXPECT_EQ(error.code, code) << error.description();
    EXPECT_EQ(error.filePath, request.executablePath);
    EXPECT_EQ(launcher_->launch(request, nullptr), nullptr);
  }

  std::unique_ptr<ProcessLauncher> launcher_ =
      std::make_unique<LinuxProcessLauncher>([](const std::string& path) { return path; });
};

TEST_F(LinuxProcessLauncherTest, KeepsOutputAndExitCode) {
  const Outcome outcome = run(shell("echo out; echo err >&2; echo again; exit 3"));
  EXPECT_EQ(outcome.output, "out\nerr\nagain\n");
  EXPECT_EQ(outcome.exitCode, 3);
}

TEST_F(LinuxProcessLauncherTest, PassesArgumentsAsTheyAre) {
  const Outcome outcome = run(requestFor("/usr/bin/printf", {"<%s>\n", "a b", "", "$HOME", "*"}));
  EXPECT_EQ(outcome.output, "<a b>\n<>\n<$HOME>\n<*>\n");
}

TEST_F(LinuxProcessLauncherTest, AChildThatPrintsNothingHasEmptyOutput) {
  const Outcome outcome = run(requestFor("/bin/true"));
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.exitCode, 0);
}

TEST_F(LinuxProcessLauncherTest, OutputThatNobodyWantsGoesToTheNullDevice) {
  const std::string file = testing::TempDir() + "where-output-goes-" + std::to_string(::getpid());
  LaunchRequest request =
      shell("readlink /proc/$$/fd/1 /proc/$$/fd/2 | cat > " + file + "; exit 4");
  request.captureOutput = false;
  const Outcome outcome = run(request);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.exitCode, 4);
  std::ifstream stream(file);
  const std::string places{std::istreambuf_iterator<char>(stream), {}};
  EXPECT_EQ(places, "/dev/null\n/dev/null\n");
  std::filesystem::remove(file);
}

TEST_F(LinuxProcessLauncherTest, ExecutesWhatThePathStandsForUnderThePathsName) {
  launcher_ = std::make_unique<LinuxProcessLauncher>([](const std::string& path) {
    return path == "/usr/sbin/example" ? QUILLSIFT_PRINT_INHERITANCE : path;
  });
  const Outcome outcome = run(requestFor("/usr/sbin/example"));
  EXPECT_THAT(outcome.output, HasSubstr("name /usr/sbin/example\n"));
  EXPECT_EQ(outcome.exitCode, 0);
}

TEST_F(LinuxProcessLauncherTest, SaysWhyAChildCannotBeStarted) {
  expectLaunchError(requestFor("/does/not/exist"), ENOENT);
  expectLaunchError(requestFor("/etc/passwd"), EACCES);
  expectLaunchError(requestFor("/etc"), EACCES);
  const std::string garbage = testing::TempDir() + "no-program-" + std::to_string(::getpid());
  std::ofstream(garbage) << "neither a script nor a binary\n";
  std::filesystem::permissions(garbage, std::filesystem::perms::owner_all);
  expectLaunchError(requestFor(garbage), ENOEXEC);
  std::filesystem::remove(garbage);
  expectLaunchError(requestFor("/bin/true", {std::string(8 * 1024 * 1024, 'x')}), E2BIG);
}

TEST_F(LinuxProcessLauncherTest, WhatTheTreeHidesDoesNotExist) {
  launcher_ = std::make_unique<LinuxProcessLauncher>([](const std::string&) { return ""; });
  expectLaunchError(requestFor("/bin/true"), ENOENT);
}

TEST_F(LinuxProcessLauncherTest, AFailedLaunchLeavesNothingOpen) {
  const std::size_t before = openDescriptors();
  for (int round = 0; round < 20; ++round) {
    EXPECT_EQ(launcher_->launch(requestFor("/does/not/exist"), nullptr), nullptr);
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(LinuxProcessLauncherTest, AFinishedChildKeepsNoDescriptor) {
  const std::size_t before = openDescriptors();
  std::vector<std::shared_ptr<ChildProcess>> finished;
  for (int round = 0; round < 20; ++round) {
    finished.push_back(launch(shell("echo output")));
    EXPECT_EQ(finished.back()->readOutputToEnd().text(), "output\n");
    finished.back()->waitUntilExit();
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(LinuxProcessLauncherTest, WithoutDescriptorsALaunchFailsAndSaysSo) {
  for (const std::size_t left : {0U, 1U}) {
    const DescriptorShortage shortage(left);
    QSError error;
    EXPECT_EQ(launcher_->launch(shell("echo output"), &error), nullptr);
    EXPECT_EQ(error.code, EMFILE);
    EXPECT_THAT(error.description(), HasSubstr("Too many open files (path: /bin/sh)"));
  }
  EXPECT_EQ(run(shell("echo output")).output, "output\n");
}

TEST_F(LinuxProcessLauncherTest, TwoDescriptorsAreEnoughForAnyOutput) {
  const DescriptorShortage shortage(2);
  const auto outcome = run(requestFor(QUILLSIFT_FLOOD_OUTPUT, {"5000000", "65536"}));
  EXPECT_EQ(outcome.output.size(), 5000000U);
  EXPECT_EQ(outcome.exitCode, 0);
}

TEST_F(LinuxProcessLauncherTest, TheChildGetsThreeDescriptors) {
  // One that somebody opened without the close-on-exec flag, far behind the others.
  const int stray = ::fcntl(STDIN_FILENO, F_DUPFD, 1000);
  EXPECT_EQ(inherited("descriptors"), "0 1 2");
  ::close(stray);
}

TEST_F(LinuxProcessLauncherTest, SiblingsNeverGetEachOthersDescriptors) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 64; ++thread) {
    threads.emplace_back([this] {
      for (int round = 0; round < 10; ++round)
        EXPECT_EQ(inherited("descriptors"), "0 1 2");
    });
  }
  for (std::thread& thread : threads)
    thread.join();
}

TEST_F(LinuxProcessLauncherTest, TheChildStartsWithDefaultSignals) {
  sigset_t blocked;
  sigset_t before;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGTERM);
  ::sigaddset(&blocked, SIGUSR1);
  ::sigaddset(&blocked, SIGRTMIN + 1);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
  const auto pipeAction = std::signal(SIGPIPE, SIG_IGN);
  const auto hangupAction = std::signal(SIGHUP, SIG_IGN);
  EXPECT_EQ(inherited("ignored"), "");
  EXPECT_EQ(inherited("blocked"), "");
  std::signal(SIGPIPE, pipeAction);
  std::signal(SIGHUP, hangupAction);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(LinuxProcessLauncherTest, ChildrenCanBeWaitedForWhereOurParentIgnoredThem) {
  std::signal(SIGCHLD, SIG_IGN);
  launcher_ = std::make_unique<LinuxProcessLauncher>([](const std::string& path) { return path; });
  EXPECT_EQ(run(shell("exit 5")).exitCode, 5);
}

TEST_F(LinuxProcessLauncherTest, EnvironmentAndDirectoryAreOurs) {
  ::setenv("QUILLSIFT_TEST_VARIABLE", "a value", 1);
  const Outcome outcome = run(shell("echo $QUILLSIFT_TEST_VARIABLE; pwd -P"));
  ::unsetenv("QUILLSIFT_TEST_VARIABLE");
  EXPECT_EQ(outcome.output, "a value\n" + std::filesystem::current_path().string() + "\n");
}

// In a process of its own.
[[noreturn]] void launchWithoutStandardDescriptors() {
  LinuxProcessLauncher launcher([](const std::string& path) { return path; });
  ::close(STDIN_FILENO);
  ::close(STDOUT_FILENO);
  ::close(STDERR_FILENO);
  const auto child = launcher.launch(
      {.executablePath = "/bin/sh", .arguments = {"-c", "echo a; echo b >&2"}}, nullptr);
  if (!child) std::_Exit(10);
  const bool same = child->readOutputToEnd().text() == "a\nb\n";
  std::_Exit(same && child->waitUntilExit() == 0 ? 0 : 11);
}

TEST_F(LinuxProcessLauncherTest, WorksWhereThePipeTakesAStandardDescriptor) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(launchWithoutStandardDescriptors(), testing::ExitedWithCode(0), "");
}

class ChildClassTest : public LinuxProcessLauncherTest {
 protected:
  // What a child sees that a task of the class launches.
  std::string inheritedIn(QOSClass qos, const std::string& thing) {
    const auto group = queues_.makeGroup();
    std::string seen;
    queues_.global(qos).asyncInGroup(group, [&] { seen = inherited(thing, currentQOS()); });
    group->wait();
    return seen;
  }

  // Of one that asks when its launch is over.
  int niceOfChild(QOSClass qos) {
    const std::string fifo = testing::TempDir() + "go-" + std::to_string(::getpid());
    EXPECT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    LaunchRequest request = shell("read line < " + fifo + "; nice");
    request.qos = qos;
    const auto child = launch(request);
    std::ofstream(fifo) << "go\n";
    const QSData seen = child->readOutputToEnd();
    EXPECT_EQ(child->waitUntilExit(), 0);
    std::filesystem::remove(fifo);
    return std::stoi(std::string(seen.text()));
  }

  int policyOfChild() {
    const auto child = launch(shell("cut -d ' ' -f 41 /proc/self/stat"));
    const QSData seen = child->readOutputToEnd();
    EXPECT_EQ(child->waitUntilExit(), 0);
    return std::stoi(std::string(seen.text()));
  }

  const int ours_ = ::getpriority(PRIO_PROCESS, 0);
  LinuxWorkQueues queues_;
};

TEST_F(ChildClassTest, ChildrenOfUtilityTasksYield) {
  EXPECT_EQ(inheritedIn(QOSClass::utility, "nice"), std::to_string(std::min(ours_ + 5, 19)));
  EXPECT_EQ(inheritedIn(QOSClass::utility, "io"), "2 6");
}

TEST_F(ChildClassTest, ChildrenOfOtherTasksRunAsWeDo) {
  const std::string io = inherited("io");
  for (const QOSClass qos : {QOSClass::standard, QOSClass::userInitiated}) {
    EXPECT_EQ(inheritedIn(qos, "nice"), std::to_string(ours_));
    EXPECT_EQ(inheritedIn(qos, "io"), io);
  }
  EXPECT_EQ(::getpriority(PRIO_PROCESS, 0), ours_);
}

TEST_F(ChildClassTest, AThreadAskedForByAUtilityTaskDoesNotYield) {
  const auto group = queues_.makeGroup();
  std::string seen;
  queues_.global(QOSClass::utility).asyncInGroup(group, [&] {
    queues_.global(QOSClass::userInitiated).asyncInGroup(group, [&] {
      seen = inherited("nice", currentQOS());
    });
  });
  group->wait();
  while (!group->waitFor(std::chrono::seconds(1)))
    continue;
  EXPECT_EQ(seen, std::to_string(ours_));
}

TEST_F(ChildClassTest, AChildMayHaveAnotherClassThanTheThreadThatLaunchesIt) {
  EXPECT_EQ(niceOfChild(QOSClass::utility), std::min(ours_ + 5, 19));
}

TEST_F(ChildClassTest, ChildrenOfAPromptThreadRunAsWeDo) {
  std::thread([this] {
    setPromptScheduling(Promptness::service);
    EXPECT_EQ(policyOfChild(), SCHED_OTHER);
    EXPECT_EQ(niceOfChild(QOSClass::standard), ours_);
    EXPECT_EQ(niceOfChild(QOSClass::utility), std::min(ours_ + 5, 19));
  }).join();
  EXPECT_EQ(::getpriority(PRIO_PROCESS, 0), ours_);
}

}  // namespace
}  // namespace quillsift
