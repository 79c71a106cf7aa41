// What keeping a child's output costs beyond the pipe it comes through.
//
// Flood: a child prints --megabytes in blocks of 64 KiB. Each round reads it with the bare loops
// below, which do no more than keep the bytes, and with the launcher's capture; the best loop is
// the measure. Memory is looked at in a round of its own: what the process and the memory files
// take with the bytes held, and once they are gone.
// Light: --children children print 4 KiB each, started, read and waited for one after another.
//
//   bench_capture [--megabytes N] [--rounds N] [--children N]

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/FileDescriptor.h"
#include "platform/linux/LinuxProcessLauncher.h"

namespace quillsift {

namespace {

constexpr std::size_t kKiB = 1024;
constexpr std::size_t kMiB = 1024 * kKiB;
constexpr std::size_t kBlock = 64 * kKiB;
constexpr std::size_t kLightOutput = 4 * kKiB;
constexpr const char* kThisProgram = "/proc/self/exe";

struct Options {
  std::size_t megabytes = 1024;
  std::size_t rounds = 5;
  std::size_t children = 1000;
};

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

std::size_t checked(ssize_t count, const char* what) {
  if (count < 0) fail(what);
  return static_cast<std::size_t>(count);
}

// --- the child

int print(std::size_t length) {
  const std::vector<char> block(std::min(length, kBlock), 'x');
  for (std::size_t left = length; left != 0;) {
    const std::size_t count = std::min(left, block.size());
    left -= checked(::write(STDOUT_FILENO, block.data(), count), "write");
  }
  return 0;
}

// --- the bare loops. Each returns what it keeps, so that letting go is not part of the time.

using Kept = std::shared_ptr<void>;

struct Mapping {
  Mapping() : bytes(static_cast<char*>(map())) {
    if (bytes == MAP_FAILED) fail("mmap");
  }
  ~Mapping() { ::munmap(bytes, length); }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  void* map() const {
    return ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  }
  void twice() {
    bytes = static_cast<char*>(::mremap(bytes, length, 2 * length, MREMAP_MAYMOVE));
    if (bytes == MAP_FAILED) fail("mremap");
    length *= 2;
  }

  std::size_t length = kMiB;
  char* bytes;
};

Kept intoChunks(int pipe, std::size_t* total) {
  const auto chunks = std::make_shared<std::vector<std::unique_ptr<char[]>>>();
  for (std::size_t filled = kMiB;;) {
    if (filled == kMiB) {
      chunks->push_back(std::make_unique_for_overwrite<char[]>(kMiB));
      filled = 0;
    }
    const std::size_t count =
        checked(::read(pipe, chunks->back().get() + filled, kMiB - filled), "read");
    if (count == 0) return chunks;
    filled += count;
    *total += count;
  }
}

Kept intoMapping(int pipe, std::size_t* total) {
  const auto mapping = std::make_shared<Mapping>();
  for (;;) {
    const std::size_t count =
        checked(::read(pipe, mapping->bytes + *total, mapping->length - *total), "read");
    if (count == 0) return mapping;
    *total += count;
    if (*total == mapping->length) mapping->twice();
  }
}

std::shared_ptr<FileDescriptor> memoryFile() {
  return std::make_shared<FileDescriptor>(::memfd_create("bench", MFD_CLOEXEC));
}

Kept intoMemoryFile(int pipe, std::size_t* total) {
  const auto file = memoryFile();
  const auto chunk = std::make_unique_for_overwrite<char[]>(256 * kKiB);
  for (;;) {
    const std::size_t count = checked(::read(pipe, chunk.get(), 256 * kKiB), "read");
    if (count == 0) return file;
    *total += checked(::write(file->get(), chunk.get(), count), "write");
  }
}

Kept splicedIntoMemoryFile(int pipe, std::size_t* total) {
  const auto file = memoryFile();
  for (;;) {
    const std::size_t count =
        checked(::splice(pipe, nullptr, file->get(), nullptr, kMiB, SPLICE_F_MOVE), "splice");
    if (count == 0) return file;
    *total += count;
  }
}

struct BareLoop {
  const char* name;
  Kept (*read)(int pipe, std::size_t* total);
  int pipeLength;  // 0: as it comes
};

constexpr BareLoop kBareLoops[] = {
    {"chunks of 1 MiB", intoChunks, 0},
    {"chunks of 1 MiB, pipe of 1 MiB", intoChunks, kMiB},
    {"growing mapping", intoMapping, 0},
    {"growing mapping, pipe of 1 MiB", intoMapping, kMiB},
    {"memory file", intoMemoryFile, 0},
    {"memory file, pipe of 256 KiB", intoMemoryFile, 256 * kKiB},
    {"memory file, pipe of 1 MiB", intoMemoryFile, kMiB},
    {"splice to a memory file", splicedIntoMemoryFile, 0},
    {"splice to a memory file, pipe of 1 MiB", splicedIntoMemoryFile, kMiB},
};

// --- measuring

double seconds(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// What this process has used, its children not included.
double processorSeconds() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  const auto of = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
  };
  return of(usage.ru_utime) + of(usage.ru_stime);
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

void expectLength(std::size_t length, std::size_t expected) {
  if (length == expected) return;
  std::fprintf(stderr, "bench_capture: got %zu bytes of %zu\n", length, expected);
  std::exit(1);
}

Kept readBare(std::size_t length, const BareLoop& loop) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) fail("pipe2");
  if (loop.pipeLength != 0) (void)::fcntl(ends[0], F_SETPIPE_SZ, loop.pipeLength);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  const std::string count = std::to_string(length);
  const char* arguments[] = {kThisProgram, "--print", count.c_str(), nullptr};
  pid_t child = 0;
  if (::posix_spawn(&child, kThisProgram, &actions, nullptr, const_cast<char**>(arguments),
                    environ) != 0) {
    fail("posix_spawn");
  }
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(ends[1]);
  std::size_t total = 0;
  Kept kept = loop.read(ends[0], &total);
  ::close(ends[0]);
  int status = 0;
  if (::waitpid(child, &status, 0) != child) fail("waitpid");
  expectLength(total, length);
  return kept;
}

QSData capture(ProcessLauncher& launcher, std::size_t length) {
  QSError error;
  const auto child = launcher.launch(
      {.executablePath = kThisProgram, .arguments = {"--print", std::to_string(length)}}, &error);
  if (!child) {
    std::fprintf(stderr, "bench_capture: %s\n", error.description().c_str());
    std::exit(1);
  }
  QSData output = child->readOutputToEnd();
  child->waitUntilExit();
  expectLength(output.length(), length);
  return output;
}

// A line "Name:   123 kB" of a file in /proc, in MiB.
double memoryLine(const char* file, const std::string& name) {
  std::ifstream lines(file);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(name + ":")) return std::stod(line.substr(name.size() + 1)) / 1024;
  }
  fail(file);
}

void row(const char* name, const char* format, double value, const char* target = "") {
  std::printf("  %-42s ", name);
  std::printf(format, value);
  std::printf("%s%s\n", *target == '\0' ? "" : "   target ", target);
}

// The times of one way to read, a sample a round. Where others use the machine the wall clock says
// little and the processor's time still something.
struct Times {
  void add(const std::function<void()>& work) {
    const double before = processorSeconds();
    wall.push_back(seconds(work));
    processor.push_back(processorSeconds() - before);
  }
  void print(const char* name) const {
    std::printf("  %-42s %8.3f s   %8.3f s CPU\n", name, median(wall), median(processor));
  }

  std::vector<double> wall;
  std::vector<double> processor;
};

void benchFlood(ProcessLauncher& launcher, const Options& options) {
  const std::size_t length = options.megabytes * kMiB;
  std::vector<Times> bare(std::size(kBareLoops));
  Times captured;
  for (std::size_t round = 0; round < options.rounds; ++round) {
    for (std::size_t index = 0; index < std::size(kBareLoops); ++index) {
      Kept kept;
      bare[index].add([&] { kept = readBare(length, kBareLoops[index]); });
    }
    QSData output;
    captured.add([&] { output = capture(launcher, length); });
  }
  std::printf("flood: %zu MiB in blocks of 64 KiB, median of %zu rounds\n", options.megabytes,
              options.rounds);
  const auto best = std::min_element(bare.begin(), bare.end(), [](const Times& a, const Times& b) {
    return median(a.wall) < median(b.wall);
  });
  for (std::size_t index = 0; index < std::size(kBareLoops); ++index) {
    bare[index].print(kBareLoops[index].name);
  }
  captured.print("capture");
  row("rate: capture / best bare loop", "%8.2f    ", median(best->wall) / median(captured.wall),
      ">= 0.90");
  row("CPU: capture / the same bare loop", "%8.2f    ",
      median(captured.processor) / median(best->processor));
}

void benchMemory(ProcessLauncher& launcher, const Options& options) {
  const auto resident = [] { return memoryLine("/proc/self/status", "VmRSS"); };
  const auto memoryFiles = [] { return memoryLine("/proc/meminfo", "Shmem"); };
  const auto megabytes = static_cast<double>(options.megabytes);
  const double residentBefore = resident();
  const double filesBefore = memoryFiles();
  std::ofstream("/proc/self/clear_refs") << "5";  // the high-water mark begins anew
  QSData output = capture(launcher, options.megabytes * kMiB);
  const double files = memoryFiles() - filesBefore;
  const double peak = memoryLine("/proc/self/status", "VmHWM") + files;
  output = {};
  const double after = resident() - residentBefore + memoryFiles() - filesBefore;
  std::printf("memory: %zu MiB captured (memory files are counted for the whole machine)\n",
              options.megabytes);
  row("before", "%8.1f MiB", residentBefore);
  row("peak, memory files included", "%8.1f MiB", peak);
  row("peak - 24 MiB, as part of the bytes", "%8.3f    ", (peak - 24) / megabytes, "<= 1.05");
  row("left after release", "%8.1f MiB", after, "<= 16.0");
}

double lightRate(const Options& options, const std::function<void()>& runOne) {
  return static_cast<double>(options.children) / seconds([&] {
           for (std::size_t child = 0; child < options.children; ++child)
             runOne();
         });
}

void benchLight(ProcessLauncher& launcher, const Options& options) {
  std::vector<double> bare;
  std::vector<double> captured;
  std::vector<double> burdened;
  for (std::size_t round = 0; round < options.rounds; ++round) {
    bare.push_back(lightRate(options, [] {
      readBare(kLightOutput, {"",
                              [](int pipe, std::size_t* total) -> Kept {
                                const auto kept = std::make_shared<std::string>();
                                char bytes[kLightOutput];
                                while (const std::size_t count =
                                           checked(::read(pipe, bytes, sizeof bytes), "read")) {
                                  kept->append(bytes, count);
                                  *total += count;
                                }
                                return kept;
                              },
                              0});
    }));
    captured.push_back(lightRate(options, [&] { capture(launcher, kLightOutput); }));
    const QSData held = capture(launcher, options.megabytes * kMiB);
    burdened.push_back(lightRate(options, [&] { capture(launcher, kLightOutput); }));
  }
  std::printf("light: %zu children of 4 KiB one after another, median of %zu rounds\n",
              options.children, options.rounds);
  row("bare spawn, read, wait", "%8.0f /s ", median(bare));
  row("capture", "%8.0f /s ", median(captured));
  row("rate: capture / bare", "%8.2f    ", median(captured) / median(bare));
  row("capture while holding the flood", "%8.0f /s ", median(burdened));
  row("rate: holding / not holding", "%8.2f    ", median(burdened) / median(captured), ">= 0.80");
}

Options parse(int count, char** arguments) {
  Options options;
  for (int index = 1; index < count; index += 2) {
    const std::string name = arguments[index];
    const std::size_t value =
        index + 1 < count ? std::strtoul(arguments[index + 1], nullptr, 10) : 0;
    std::size_t* const option = name == "--megabytes"  ? &options.megabytes
                                : name == "--rounds"   ? &options.rounds
                                : name == "--children" ? &options.children
                                                       : nullptr;
    if (option == nullptr || value == 0) {
      std::fputs("usage: bench_capture [--megabytes N] [--rounds N] [--children N]\n", stderr);
      std::exit(2);
    }
    *option = value;
  }
  return options;
}

}  // namespace

}  // namespace quillsift

int main(int count, char** arguments) {
  using namespace quillsift;
  if (count == 3 && std::strcmp(arguments[1], "--print") == 0) {
    return print(std::strtoul(arguments[2], nullptr, 10));
  }
  const Options options = parse(count, arguments);
  LinuxProcessLauncher launcher([](const std::string& path) { return path; });
  benchMemory(launcher, options);  // first, while nothing has been allocated and freed
  benchFlood(launcher, options);
  benchLight(launcher, options);
  return 0;
}
