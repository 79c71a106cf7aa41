// /usr/sbin/stallscope: where every thread is, in the kernel and in its own program.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "tools/ExitCodes.h"
#include "tools/HostTool.h"
#include "tools/OperatingSystem.h"
#include "tools/Recipe.h"
#include "tools/StackSampler.h"

namespace quillsift::tools {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRounds = 10;
constexpr std::chrono::milliseconds kInterval{100};
constexpr std::chrono::seconds kKernelLimit{8};   // on a machine with very many threads
constexpr std::chrono::seconds kProcessLimit{5};  // for the stacks of one process
constexpr std::chrono::seconds kUserLimit{20};    // for those of all

void sampleKernel(StackSampler& sampler) {
  const auto begin = Clock::now();
  for (int round = 0; round < kRounds; ++round) {
    std::this_thread::sleep_until(begin + round * kInterval);
    if (Clock::now() - begin > kKernelLimit) break;
    sampler.sample(begin + kKernelLimit);
  }
}

// Ourselves, who started us and waits for this output, and the first process of all, which must
// not be stopped even for a moment.
bool isSpared(pid_t process) {
  return process == 1 || process == ::getpid() || process == ::getppid();
}

bool mayTrace(const Host& host, pid_t process) {
  if (::geteuid() == 0) return true;
  struct stat status {};
  return ::stat(host.path("/proc/" + std::to_string(process)).c_str(), &status) == 0 &&
         status.st_uid == ::geteuid();
}

// The exit code: 0, or why there is not all of it.
int sampleUsers(Invocation& invocation, const StackSampler& sampler) {
  Output& output = invocation.output;
  HostTool tools(invocation.host, output);
  const auto end = Clock::now() + kUserLimit;
  int forbidden = 0;
  int left = 0;
  bool complete = true;
  for (const pid_t process : sampler.processesToTrace()) {
    if (isSpared(process)) continue;
    if (!mayTrace(invocation.host, process)) {
      ++forbidden;
      continue;
    }
    const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    if (rest.count() <= 0) {
      ++left;
      continue;
    }
    output.print("\nProcess %d (%s)\n", process, sampler.processName(process).c_str());
    const ToolResult result =
        tools.run({.program = "eu-stack",
                   .arguments = {"-q", "-b", "-p", std::to_string(process)},
                   .limit = std::min<std::chrono::milliseconds>(rest, kProcessLimit)});
    if (result.end == ToolResult::End::timedOut) {
      output.line("  (no answer in time)");
      complete = false;
    }
  }
  if (forbidden > 0) {
    output.print("\nuser stacks: not permitted to this user for %d processes\n", forbidden);
  }
  if (left > 0) output.print("\nuser stacks: time was up before %d processes\n", left);
  if (!complete || left > 0) return kExitTimeLimit;
  return forbidden > 0 ? kExitNotPermitted : 0;
}

bool knowsAll(const std::vector<std::string>& arguments) {
  return std::all_of(arguments.begin(), arguments.end(), [](const std::string& argument) {
    return argument == "-noSymbolicate" || argument == "-stdout" || argument == "-noFile";
  });
}

}  // namespace

int sampleStacks(Invocation& invocation) {
  if (!knowsAll(invocation.arguments)) return unknownArguments(invocation);
  StackSampler sampler(invocation.host);
  sampleKernel(sampler);
  invocation.output.line(kernelVersion());
  sampler.print(invocation.output);
  // What the kernel refuses even to root, it shows to nobody.
  const bool rightsMissing = sampler.forbiddenThreads() > 0 && ::geteuid() != 0;
  const int kernelPart = sampler.stoppedEarly() ? kExitTimeLimit
                         : rightsMissing        ? kExitNotPermitted
                                                : 0;
  invocation.output.line("\n== user stacks ==");
  if (!invocation.host.program("eu-stack")) {
    invocation.output.line("user stacks: eu-stack not installed");
    return kernelPart;
  }
  const int userPart = sampleUsers(invocation, sampler);
  return kernelPart == kExitTimeLimit || userPart == 0 ? kernelPart : userPart;
}

}  // namespace quillsift::tools
