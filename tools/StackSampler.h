#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tools/Host.h"
#include "tools/Output.h"

namespace quillsift::tools {

// Looks again and again at where every thread of this machine is in the kernel, and counts for each
// thread how often it was seen in the same place. A thread that stalls shows one place every time.
class StackSampler {
 public:
  explicit StackSampler(const Host& host) : host_(host) {}

  // One look at all threads of all processes; at fewer when the time is up.
  void sample(std::chrono::steady_clock::time_point end);
  // Whether a round ended before it had seen all.
  bool stoppedEarly() const { return stoppedEarly_; }
  int rounds() const { return rounds_; }
  // How many threads have a stack that this user may not read.
  int forbiddenThreads() const;

  // All that was seen, process by process in the order of their ids.
  void print(Output& output) const;

  // The processes whose own stacks may be asked for, least risky first: asking stops a process for
  // a moment, and does not come back soon from one that waits for a device. Kernel threads and
  // processes that are stopped or dead are left out.
  std::vector<pid_t> processesToTrace() const;
  std::string processName(pid_t process) const;

 private:
  struct Place {
    char state;
    std::string waitChannel;
    std::string systemCall;  // its number, or what the kernel says instead
    std::string stack;
    auto operator<=>(const Place&) const = default;  // NOLINT(modernize-use-nullptr): a false alarm
  };
  struct Thread {
    std::string name;
    std::uint64_t firstTicks = 0;  // time on a processor, in clock ticks
    std::uint64_t lastTicks = 0;
    char state = '?';
    bool isKernelThread = false;
    bool isForbidden = false;  // its stack is there and may not be read
    std::map<Place, int> places;
  };
  using Threads = std::map<pid_t, Thread>;

  void sampleProcess(pid_t process);
  void sampleThread(int directory, Thread& thread, bool isNew);
  void printThread(pid_t id, const Thread& thread, Output& output) const;
  void printNotes(Output& output) const;

  const Host& host_;  // not owned
  int rounds_ = 0;
  std::map<pid_t, Threads> processes_;
  bool stoppedEarly_ = false;
  bool hasStacks_ = false;  // a stack was read
};

}  // namespace quillsift::tools
