#include "tools/StackSampler.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <optional>

#include "tools/Descriptor.h"
#include "tools/Files.h"

namespace quillsift::tools {

namespace {

constexpr unsigned kKernelThreadFlag = 0x00200000;  // PF_KTHREAD
constexpr std::size_t kLongestFile = std::size_t{16} * 1024;

std::optional<pid_t> toProcessId(std::string_view text) {
  pid_t process = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), process);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return process;
}

struct Status {
  std::string name;
  char state = '?';
  unsigned flags = 0;
  std::uint64_t ticks = 0;
};

// "1234 (name) S 1 ...". The name may hold anything, also ")".
std::optional<Status> parsedStatus(std::string_view line) {
  const std::size_t open = line.find('(');
  const std::size_t close = line.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos) return std::nullopt;
  Status status;
  status.name = line.substr(open + 1, close - open - 1);
  unsigned long long user = 0;
  unsigned long long system = 0;
  const std::string rest(line.substr(close + 1));
  const int count =
      std::sscanf(rest.c_str(), " %c %*d %*d %*d %*d %*d %u %*u %*u %*u %*u %llu %llu",
                  &status.state, &status.flags, &user, &system);
  if (count != 4) return std::nullopt;
  status.ticks = user + system;
  return status;
}

bool isGone(char state) {
  return state == 'Z' || state == 'X' || state == 'x';
}
bool isStopped(char state) {
  return state == 'T' || state == 't';
}

std::uint64_t milliseconds(std::uint64_t ticks) {
  const auto perSecond = static_cast<std::uint64_t>(std::max(1L, ::sysconf(_SC_CLK_TCK)));
  return ticks * 1000 / perSecond;
}

}  // namespace

void StackSampler::sample(std::chrono::steady_clock::time_point end) {
  ++rounds_;
  for (const std::string& name : namesIn(host_.path("/proc")).value_or(Names{})) {
    if (std::chrono::steady_clock::now() > end) {
      stoppedEarly_ = true;
      return;
    }
    if (const auto process = toProcessId(name)) sampleProcess(*process);
  }
}

void StackSampler::sampleProcess(pid_t process) {
  const std::string tasks = host_.path("/proc/" + std::to_string(process) + "/task");
  const auto names = namesIn(tasks);
  const Descriptor all(::open(tasks.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!names || !all.valid()) return;  // it has ended meanwhile
  for (const std::string& name : *names) {
    const auto id = toProcessId(name);
    const Descriptor directory(
        ::openat(all.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!id || !directory.valid()) continue;
    const auto [thread, isNew] = processes_[process].try_emplace(*id);
    sampleThread(directory.get(), thread->second, isNew);
  }
}

void StackSampler::sampleThread(int directory, Thread& thread, bool isNew) {
  const auto line = readFileAt(directory, "stat", kLongestFile);
  const auto status = line ? parsedStatus(*line) : std::nullopt;
  if (!status) return;
  thread.name = status->name;
  thread.state = status->state;
  thread.isKernelThread = (status->flags & kKernelThreadFlag) != 0;
  thread.lastTicks = status->ticks;
  if (isNew) thread.firstTicks = status->ticks;

  auto stack = readFileAt(directory, "stack", kLongestFile);
  thread.isForbidden = !stack && (errno == EACCES || errno == EPERM);
  hasStacks_ = hasStacks_ || (stack && !stack->empty());
  const auto waitChannel = readFileAt(directory, "wchan", kLongestFile).value_or("");
  // Behind the number stand the call's arguments, which are the program's own business.
  std::string call = readFileAt(directory, "syscall", kLongestFile).value_or("");
  call.resize(std::min(call.find_first_of(" \n"), call.size()));
  ++thread.places[{status->state, std::string(trimmed(waitChannel)), call,
                   std::move(stack).value_or("")}];
}

void StackSampler::print(Output& output) const {
  std::size_t threadCount = 0;
  for (const auto& [process, threads] : processes_)
    threadCount += threads.size();
  output.print("%d rounds, %zu processes, %zu threads\n", rounds_, processes_.size(), threadCount);
  printNotes(output);
  for (const auto& [process, threads] : processes_) {
    output.print("\nProcess %d (%s), threads: %zu\n", process, processName(process).c_str(),
                 threads.size());
    for (const auto& [id, thread] : threads)
      printThread(id, thread, output);
  }
}

int StackSampler::forbiddenThreads() const {
  int forbidden = 0;
  for (const auto& [process, threads] : processes_) {
    for (const auto& [id, thread] : threads)
      forbidden += thread.isForbidden ? 1 : 0;
  }
  return forbidden;
}

void StackSampler::printNotes(Output& output) const {
  if (stoppedEarly_) output.line("time was up before a round had seen all");
  const int forbidden = forbiddenThreads();
  if (forbidden > 0) {
    output.print("kernel stacks: not permitted to this user for %d threads\n", forbidden);
  } else if (!hasStacks_) {
    output.line("no kernel stacks in this kernel");
  }
}

void StackSampler::printThread(pid_t id, const Thread& thread, Output& output) const {
  output.print("  Thread %d (%s)", id, thread.name.c_str());
  const std::uint64_t spent = milliseconds(thread.lastTicks - thread.firstTicks);
  if (spent > 0) output.print(", %llu ms on a processor", static_cast<unsigned long long>(spent));
  output.write("\n");
  std::vector<std::pair<const Place*, int>> places;
  for (const auto& [place, count] : thread.places)
    places.emplace_back(&place, count);
  std::stable_sort(places.begin(), places.end(),
                   [](const auto& one, const auto& other) { return one.second > other.second; });
  for (const auto& [place, count] : places) {
    output.print("    %3d x state %c", count, place->state);
    if (!place->waitChannel.empty() && place->waitChannel != "0") {
      output.print(", waits in %s", place->waitChannel.c_str());
    }
    if (!place->systemCall.empty()) output.print(", system call %s", place->systemCall.c_str());
    output.write("\n");
    for (std::string_view frame : linesOf(place->stack)) {
      // The kernel hides the address: "[<0>] schedule+0x10/0x20".
      if (frame.starts_with("[<0>] ")) frame.remove_prefix(6);
      output.line("            " + std::string(frame));
    }
  }
}

std::vector<pid_t> StackSampler::processesToTrace() const {
  std::vector<pid_t> calm;
  std::vector<pid_t> waiting;
  for (const auto& [process, threads] : processes_) {
    const auto any = [&threads = threads](auto condition) {
      return std::any_of(threads.begin(), threads.end(),
                         [&](const auto& entry) { return condition(entry.second); });
    };
    if (any([](const Thread& thread) {
          return thread.isKernelThread || isGone(thread.state) || isStopped(thread.state);
        })) {
      continue;
    }
    (any([](const Thread& thread) { return thread.state == 'D'; }) ? waiting : calm)
        .push_back(process);
  }
  calm.insert(calm.end(), waiting.begin(), waiting.end());
  return calm;
}

std::string StackSampler::processName(pid_t process) const {
  const auto threads = processes_.find(process);
  if (threads == processes_.end()) return "";
  const auto main = threads->second.find(process);
  return main == threads->second.end() ? "" : main->second.name;
}

}  // namespace quillsift::tools
