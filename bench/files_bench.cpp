// What log files and directory saves cost beyond what they cannot do without, with the real
// adapters.
//
// Capture: the same files are opened, looked at (statx) and mapped, and captured as the jobs of a
// session do it; once without reading a byte, once with a pass over all of them, as a save makes
// it. Directory save: the captured session is saved, and `cp -a` copies the same tree to the same
// place. Best on a file system of its own, or one where no files were removed in the last minutes.
//
//   bench_files [--megabytes N] [--file-megabytes N] [--rounds N] [--directory D]

#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include "jobs/QSFileAttributes.h"
#include "jobs/QSJob.h"
#include "platform/FileDescriptor.h"
#include "platform/Platform.h"
#include "platform/Text.h"
#include "platform/linux/LinuxPlatform.h"
#include "save/DirectoryWriter.h"

namespace quillsift {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMiB = 1024 * 1024;
// Targets of this program.
constexpr const char* kCaptureTarget = "<= 1.20";
constexpr const char* kMemoryTarget = "<= 16.0";
constexpr const char* kSaveTarget = ">= 0.80";

struct Options {
  std::size_t megabytes = 2048;
  std::size_t fileMegabytes = 32;
  std::size_t rounds = 5;
  std::string directory = ".";
};

[[noreturn]] void fail(const std::string& what) {
  std::cerr << "bench_files: " << what << "\n";
  std::exit(1);
}

double secondsOf(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// The median of what the rounds say, as the two runs of a round see the same machine.
double medianRatio(const std::vector<double>& above, const std::vector<double>& below) {
  std::vector<double> ratios;
  for (std::size_t round = 0; round < below.size(); ++round)
    ratios.push_back(above[round] / below[round]);
  return median(ratios);
}

// What only this process has, in MiB: pages of files are the kernel's cache.
double privateMemory() {
  std::ifstream lines("/proc/self/status");
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("RssAnon:")) return std::stod(line.substr(8)) / 1024;
  }
  fail("no RssAnon in /proc/self/status");
}

double processorSeconds(int who) {
  rusage usage{};
  ::getrusage(who, &usage);
  const auto of = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
  };
  return of(usage.ru_utime) + of(usage.ru_stime);
}

// Where others use the machine the wall clock says little and the processor's time still something.
struct Times {
  void add(int who, const std::function<void()>& work) {
    const double before = processorSeconds(who);
    wall.push_back(secondsOf(work));
    processor.push_back(processorSeconds(who) - before);
  }
  std::vector<double> wall, processor;
};

void row(const std::string& name, double value, const char* unit, const char* target = "") {
  std::printf("  %-44s %9.3f %s%s%s\n", name.c_str(), value, unit,
              *target == '\0' ? "" : "   target ", target);
}

std::uint64_t sumOf(std::span<const std::byte> bytes) {
  std::uint64_t sum = 0;
  for (std::size_t position = 0; position < bytes.size(); position += 64)
    sum += std::to_integer<std::uint64_t>(bytes[position]);
  return sum;
}

// --- the two ways to get at a file

struct BareMapping {
  void* address;
  std::size_t length;
};

std::vector<BareMapping> mapBarely(const std::vector<std::string>& paths) {
  std::vector<BareMapping> mappings;
  for (const std::string& path : paths) {
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct statx status {};
    if (::statx(file, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &status) != 0) {
      fail("statx");
    }
    const auto length = static_cast<std::size_t>(status.stx_size);
    void* const address = ::mmap(nullptr, length, PROT_READ, MAP_PRIVATE, file, 0);
    if (address == MAP_FAILED) fail("mmap");
    ::close(file);
    mappings.push_back({address, length});
  }
  return mappings;
}

void unmap(const std::vector<BareMapping>& mappings) {
  for (const BareMapping& mapping : mappings)
    ::munmap(mapping.address, mapping.length);
}

std::shared_ptr<const QSJobEntry> capture(const std::string& path) {
  QSError error;
  const auto attributes =
      QSFileAttributes::fileAttributesForPath(path, QSFileAttributesKeepHandleOpen, &error);
  auto data = attributes ? attributes->readFileReturningDataWithError(&error) : std::nullopt;
  if (!data) fail(error.description());
  return std::make_shared<QSJobEntry>(std::move(data), *attributes);
}

std::vector<std::shared_ptr<const QSJobEntry>> captureAll(const std::vector<std::string>& paths) {
  std::vector<std::shared_ptr<const QSJobEntry>> entries;
  for (const std::string& path : paths)
    entries.push_back(capture(path));
  return entries;
}

// --- the measurements

// One pass over the files without their content takes about a millisecond.
constexpr int kPasses = 20;

std::uint64_t sink = 0;  // keeps the passes over the bytes from being optimised away

void benchCapture(const std::vector<std::string>& paths, std::size_t rounds) {
  std::vector<double> bare, ours, bareRead, oursRead;
  double memory = 0;
  for (std::size_t round = 0; round < rounds; ++round) {
    bare.push_back(secondsOf([&] {
      for (int pass = 0; pass < kPasses; ++pass)
        unmap(mapBarely(paths));
    }));
    ours.push_back(secondsOf([&] {
      for (int pass = 0; pass < kPasses; ++pass)
        captureAll(paths);
    }));
    bareRead.push_back(secondsOf([&] {
      const auto mappings = mapBarely(paths);
      for (const BareMapping& mapping : mappings)
        sink += sumOf({static_cast<const std::byte*>(mapping.address), mapping.length});
      unmap(mappings);
    }));
    const double before = privateMemory();
    oursRead.push_back(secondsOf([&] {
      const auto entries = captureAll(paths);
      for (const auto& entry : entries)
        sink += sumOf(entry->fileData()->bytes());
      memory = std::max(memory, privateMemory() - before);
    }));
  }
  const auto each = 1e6 / static_cast<double>(paths.size() * kPasses);
  std::printf("capture: %zu files, median of %zu rounds\n", paths.size(), rounds);
  row("open, statx, mmap, munmap", median(bare) * each, "us a file");
  row("capture", median(ours) * each, "us a file");
  row("capture / bare", medianRatio(ours, bare), "", kCaptureTarget);
  row("the same and one pass over the bytes, bare", median(bareRead), "s");
  row("captured", median(oursRead), "s");
  row("captured and read / bare", medianRatio(oursRead, bareRead), "", kCaptureTarget);
  row("private memory more while all are held and read", memory, "MiB", kMemoryTarget);
}

class QuietHost : public SaveHost {
 public:
  explicit QuietHost(std::vector<std::shared_ptr<QSJob>> jobs) : jobs_(std::move(jobs)) {}
  std::vector<std::shared_ptr<QSJob>> copyJobs() override { return jobs_; }
  void reportSaveProgress(double, SaveProgressState, const std::string&) override {}

 private:
  const std::vector<std::shared_ptr<QSJob>> jobs_;
};

std::vector<std::shared_ptr<QSJob>> jobsFor(const std::vector<std::string>& paths,
                                            const std::string& root) {
  std::vector<std::shared_ptr<QSJob>> jobs;
  for (const std::string& path : paths) {
    jobs.push_back(std::make_shared<QSJob>(
        [path](std::shared_ptr<const QSJobEntry>* entry, QSError*) {
          *entry = capture(path);
          return true;
        },
        path.substr(root.size() + 1)));
    jobs.back()->beginSynchronousJob();
  }
  return jobs;
}

// What becomes of a run's files before the next. Many are kept to the end: before ext4 makes a file
// it walks over all the inodes that were removed in the last minutes, which costs many times what
// the run does. Much content is removed, since fresh memory for it costs as much.
enum class AfterRun { keep, remove };

void benchSave(const char* what, const std::vector<std::string>& paths, const std::string& source,
               const std::string& target, AfterRun afterRun, std::size_t rounds) {
  QuietHost host(jobsFor(paths, source));
  Times copied, saved;
  const auto settle = [&](const std::string& directory) {
    if (afterRun == AfterRun::remove) fs::remove_all(directory);
    ::sync();
  };
  const auto copy = [&](const std::string& directory) {
    copied.add(RUSAGE_CHILDREN, [&] {
      const std::string command = "cp -a '" + source + "' '" + directory + "'";
      if (std::system(command.c_str()) != 0) fail(command);
    });
    settle(directory);
  };
  const auto save = [&](const std::string& directory) {
    saved.add(RUSAGE_SELF, [&] {
      if (!writeDirectory(directory, true, host)) fail("the save failed");
    });
    settle(directory);
  };
  ::sync();
  for (std::size_t round = 0; round < rounds; ++round) {
    const std::string place = target + formatted("/%zu", round);
    fs::create_directories(place);
    if (round % 2 == 0) copy(place + "/copied");
    save(place + "/saved");
    if (round % 2 != 0) copy(place + "/copied");
  }
  std::printf("directory save: %s, median of %zu rounds\n", what, rounds);
  row("cp -a", median(copied.wall), "s");
  row("save", median(saved.wall), "s");
  row("rate: save / cp -a", medianRatio(copied.wall, saved.wall), "", kSaveTarget);
  row("cp -a, processor", median(copied.processor), "s");
  row("save, processor", median(saved.processor), "s");
  row("rate of the processor's time", medianRatio(copied.processor, saved.processor), "",
      kSaveTarget);
}

std::vector<std::string> makeFiles(const std::string& root, std::size_t count, std::size_t length) {
  std::string text(length, '\0');
  for (std::size_t position = 0; position < length; ++position)
    text[position] = static_cast<char>('a' + position * 7 / 5 % 26);
  std::vector<std::string> paths;
  for (std::size_t index = 0; index < count; ++index) {
    const std::string directory = root + formatted("/part %zu", index * 20 / count);
    fs::create_directories(directory);
    paths.push_back(directory + formatted("/%05zu.log", index));
    std::ofstream file(paths.back(), std::ios::binary);
    file << text;
    if (!file.flush()) fail("cannot write " + paths.back());
  }
  return paths;
}

void run(const Options& options) {
  std::string scratch = options.directory + "/bench_files.XXXXXX";
  if (::mkdtemp(scratch.data()) == nullptr) fail("cannot make " + scratch);
  scratch = fs::absolute(scratch).lexically_normal();
  double load[3] = {};
  (void)::getloadavg(load, 3);
  std::printf("in %s, load %.2f at the start\n", scratch.c_str(), load[0]);

  const std::string large = scratch + "/large";
  const auto largeFiles =
      makeFiles(large, options.megabytes / options.fileMegabytes, options.fileMegabytes * kMiB);
  benchCapture(largeFiles, options.rounds);
  const std::string few = scratch + "/few";
  const auto fewFiles = makeFiles(few, 16, 32 * kMiB);
  benchSave("16 files of 32 MiB", fewFiles, few, scratch + "/few targets", AfterRun::remove,
            options.rounds);
  const std::string many = scratch + "/many";
  const auto manyFiles = makeFiles(many, 5000, 20'000);
  benchSave("5000 files of 20 kB", manyFiles, many, scratch + "/many targets", AfterRun::keep,
            options.rounds);

  (void)::getloadavg(load, 3);
  std::printf("load %.2f at the end (%llu)\n", load[0], static_cast<unsigned long long>(sink % 10));
  fs::remove_all(scratch);
}

Options parse(int count, char** arguments) {
  Options options;
  for (int index = 1; index + 1 < count; index += 2) {
    const std::string name = arguments[index];
    const std::string value = arguments[index + 1];
    if (name == "--megabytes") options.megabytes = std::stoul(value);
    if (name == "--file-megabytes") options.fileMegabytes = std::stoul(value);
    if (name == "--rounds") options.rounds = std::stoul(value);
    if (name == "--directory") options.directory = value;
  }
  return options;
}

}  // namespace

}  // namespace quillsift

int main(int count, char** arguments) {
  using namespace quillsift;
  Platform::install(makeLinuxPlatform({}));
  run(parse(count, arguments));
  return 0;
}
