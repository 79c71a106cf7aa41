// What a save costs beyond the compression it cannot do without. Each round compresses the same
// bytes with zlib at level 9 and nothing around it, saves them as an archive (flushes, rename and
// directory flush included), and packs them as files with `tar --format=pax | gzip -9`.
//
//   bench_save [--megabytes N] [--rounds N] [--directory D]

#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "jobs/QSJob.h"
#include "platform/Platform.h"
#include "platform/Text.h"
#include "platform/linux/LinuxPlatform.h"
#include "save/ArchiveWriter.h"

namespace quillsift {

namespace {

constexpr std::size_t kMegabyte = 1'000'000;

struct Options {
  std::size_t megabytes = 300;
  int rounds = 3;
  std::string directory = ".";
};

[[noreturn]] void fail(const std::string& what) {
  std::cerr << "bench_save: " << what << "\n";
  std::exit(1);
}

// The kinds of text that a session collects: few kinds of message repeated with other numbers. The
// same bytes in every run: the generator's sequence is fixed by the standard, and no distribution
// of the library is used.
class Corpus {
 public:
  Corpus() {
    for (int i = 0; i < 3000; ++i)
      words_.push_back(madeWord());
    for (int i = 0; i < 600; ++i)
      messages_.push_back(madeSentence(4 + below(10)));
    for (int i = 0; i < 300; ++i)
      programs_.push_back(word());
  }

  std::string file(std::size_t length) {
    std::string text;
    text.reserve(length + 512);
    const std::uint64_t kind = below(5);
    while (text.size() < length)
      appendLine(kind, text);
    text.resize(length);
    return text;
  }

  std::uint64_t below(std::uint64_t limit) { return random_() % limit; }

 private:
  std::string madeWord() {
    static constexpr std::string_view kConsonants = "bcdfghklmnprstvw";
    static constexpr std::string_view kVowels = "aeiou";
    std::string made;
    for (std::uint64_t syllables = 1 + below(4); syllables > 0; --syllables) {
      made += kConsonants[below(kConsonants.size())];
      made += kVowels[below(kVowels.size())];
      if (below(2) == 0) made += kConsonants[below(kConsonants.size())];
    }
    return made;
  }

  std::string madeSentence(std::uint64_t length) {
    std::string sentence = word();
    for (; length > 1; --length)
      sentence += " " + word();
    return sentence;
  }

  // Some much more often than others, as in real text.
  template <typename T>
  const T& picked(const std::vector<T>& from) {
    return from[std::min(below(from.size()), below(from.size()))];
  }
  const std::string& word() { return picked(words_); }
  int number(std::uint64_t limit) { return static_cast<int>(below(limit)); }

  void appendLine(std::uint64_t kind, std::string& text) {
    if (below(4) == 0) ++seconds_;
    if (kind == 0) return appendLogLine(text);
    if (kind == 1) return appendJSONLine(text);
    if (kind == 2) return appendHexLine(text);
    if (kind == 3) return appendTableRow(text);
    text += madeSentence(6 + below(10)) + "\n";
  }

  void appendLogLine(std::string& text) {
    const auto clock = [&](std::uint64_t unit, std::uint64_t limit) {
      return static_cast<int>(seconds_ / unit % limit);
    };
    text += formatted("Nov %2d %02d:%02d:%02d rescue %s[%d]: %s", clock(86400, 28) + 1,
                      clock(3600, 24), clock(60, 60), clock(1, 60), picked(programs_).c_str(),
                      300 + number(400), picked(messages_).c_str());
    text += below(3) == 0 ? formatted(" (0x%x)\n", number(1U << 24)) : "\n";
  }

  void appendJSONLine(std::string& text) {
    text +=
        formatted(R"({"time":%d.%06d,"unit":"%s","level":%d,"id":%d,"message":"%s"})",
                  1'700'000'000 + static_cast<int>(seconds_), number(1'000'000),
                  picked(programs_).c_str(), number(7), number(5000), picked(messages_).c_str());
    text += '\n';
  }

  void appendHexLine(std::string& text) {
    text += formatted("%08x ", static_cast<unsigned>(offset_ += 16));
    const bool empty = below(3) != 0;
    for (int byte = 0; byte < 16; ++byte)
      text += formatted(" %02x", empty ? 0U : static_cast<unsigned>(below(256)));
    text += '\n';
  }

  void appendTableRow(std::string& text) {
    text += formatted("root %6d %5d %5.1f %9d ? S %02d:%02d /usr/libexec/%s --%s\n", number(60000),
                      number(400), number(1000) / 10.0, number(400) * 4096, number(24), number(60),
                      picked(programs_).c_str(), picked(programs_).c_str());
  }

  std::mt19937_64 random_{20240229};
  std::vector<std::string> words_, messages_, programs_;
  std::uint64_t seconds_ = 0;
  std::uint64_t offset_ = 0;
};

std::vector<std::shared_ptr<QSJob>> collected(std::size_t bytes) {
  Corpus corpus;
  std::vector<std::shared_ptr<QSJob>> jobs;
  while (bytes > 0) {
    const std::size_t length = std::min<std::size_t>(bytes, 10'000 + corpus.below(1'600'000));
    const QSData data(corpus.file(length));
    bytes -= length;
    jobs.push_back(std::make_shared<QSJob>(
        [data](std::shared_ptr<const QSJobEntry>* entry, QSError*) {
          *entry = std::make_shared<QSJobEntry>(data);
          return true;
        },
        formatted("Logs/part-%04zu.log", jobs.size())));
    jobs.back()->beginSynchronousJob();
  }
  return jobs;
}

class QuietHost : public SaveHost {
 public:
  explicit QuietHost(std::vector<std::shared_ptr<QSJob>> jobs) : jobs_(std::move(jobs)) {}
  std::vector<std::shared_ptr<QSJob>> copyJobs() override { return jobs_; }
  void reportSaveProgress(double, SaveProgressState, const std::string&) override {}

 private:
  std::vector<std::shared_ptr<QSJob>> jobs_;
};

class StandardErrorLog : public SystemLog {
 public:
  void write(int, const std::string& message) override { std::cerr << message << "\n"; }
};

struct Cost {
  double wall = 0;
  double cpu = 0;
  std::size_t bytes = 0;
  std::size_t extraMemory = 0;
};

double cpuSeconds(int who) {
  rusage usage{};
  ::getrusage(who, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

template <typename Work>
Cost measured(int who, const Work& work) {
  const double cpuBefore = cpuSeconds(who);
  const auto start = std::chrono::steady_clock::now();
  Cost cost;
  cost.bytes = work();
  cost.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  cost.cpu = cpuSeconds(who) - cpuBefore;
  return cost;
}

// A figure of /proc/self/status in bytes.
std::size_t memoryFigure(std::string_view name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name)) return std::stoul(line.substr(name.size() + 1)) * 1024;
  }
  fail("no " + std::string(name) + " in /proc/self/status");
}

// Compressed size of the same bytes as one stream.
std::size_t compressAlone(const std::vector<std::shared_ptr<QSJob>>& jobs) {
  z_stream stream{};
  if (::deflateInit(&stream, Z_BEST_COMPRESSION) != Z_OK) fail("deflateInit");
  std::vector<Bytef> output(64 * 1024);
  std::size_t total = 0;
  const auto run = [&](int flush) {
    do {
      stream.next_out = output.data();
      stream.avail_out = static_cast<uInt>(output.size());
      if (::deflate(&stream, flush) == Z_STREAM_ERROR) fail("deflate");
      total += output.size() - stream.avail_out;
    } while (stream.avail_out == 0);
  };
  for (const auto& job : jobs) {
    const std::string_view text = job->resultEntry()->fileData()->text();
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    run(Z_NO_FLUSH);
  }
  run(Z_FINISH);
  ::deflateEnd(&stream);
  return total;
}

Cost save(QuietHost& host, const std::string& path) {
  std::ofstream("/proc/self/clear_refs") << 5;  // starts the memory peak over
  const std::size_t before = memoryFigure("VmRSS");
  Cost cost = measured(RUSAGE_SELF, [&] {
    if (!writeArchive(path, true, host)) fail("the save failed");
    return static_cast<std::size_t>(std::filesystem::file_size(path));
  });
  const std::size_t peak = memoryFigure("VmHWM");
  cost.extraMemory = peak > before ? peak - before : 0;
  return cost;
}

Cost packWithTools(const std::string& directory, const std::string& path) {
  const std::string command =
      "tar --format=pax -cf - -C '" + directory + "' . | gzip -9 > '" + path + "'";
  return measured(RUSAGE_CHILDREN, [&] {
    if (std::system(command.c_str()) != 0) fail(command);
    return static_cast<std::size_t>(std::filesystem::file_size(path));
  });
}

void writeFiles(const std::vector<std::shared_ptr<QSJob>>& jobs, const std::string& directory) {
  for (const auto& job : jobs) {
    const std::filesystem::path path = joinedPath(directory, job->relativeFilePathAndName());
    std::filesystem::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary);
    file << job->resultEntry()->fileData()->text();
    if (!file.flush()) fail("cannot write " + path.string());
  }
}

Cost median(const std::vector<Cost>& costs) {
  const auto middle = [&](auto member) {
    std::vector<double> values;
    for (const Cost& cost : costs)
      values.push_back(static_cast<double>(cost.*member));
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
  };
  Cost result = costs.back();
  result.wall = middle(&Cost::wall);
  result.cpu = middle(&Cost::cpu);
  for (const Cost& cost : costs)
    result.extraMemory = std::max(result.extraMemory, cost.extraMemory);
  return result;
}

void print(const char* name, const Cost& cost) {
  std::printf("  %-28s wall %7.2f s   cpu %7.2f s   %11zu bytes\n", name, cost.wall, cost.cpu,
              cost.bytes);
  std::fflush(stdout);
}

void printSummary(const Cost& alone, const Cost& saved, const Cost& tools) {
  std::printf("medians\n");
  print("zlib level 9 alone", alone);
  print("save", saved);
  print("tar --format=pax | gzip -9", tools);
  std::printf("save / zlib alone: wall %.3f, cpu %.3f\n", saved.wall / alone.wall,
              saved.cpu / alone.cpu);
  std::printf("save / tar | gzip: wall %.3f, cpu %.3f\n", saved.wall / tools.wall,
              saved.cpu / tools.cpu);
  std::printf("extra memory of the save: %.2f MiB\n",
              static_cast<double>(saved.extraMemory) / (1024 * 1024));
}

void run(const Options& options) {
  std::string scratch = options.directory + "/bench_save.XXXXXX";
  if (::mkdtemp(scratch.data()) == nullptr) fail("cannot make " + scratch);
  scratch = std::filesystem::absolute(scratch).lexically_normal();

  const auto jobs = collected(options.megabytes * kMegabyte);
  std::printf("%zu members, %zu MB, in %s\n", jobs.size(), options.megabytes, scratch.c_str());
  writeFiles(jobs, scratch + "/files");
  QuietHost host(jobs);

  std::vector<Cost> alone, saved, tools;
  for (int round = 1; round <= options.rounds; ++round) {
    std::printf("round %d\n", round);
    alone.push_back(measured(RUSAGE_SELF, [&] { return compressAlone(jobs); }));
    print("zlib level 9 alone", alone.back());
    saved.push_back(save(host, scratch + "/saved.tgz"));
    print("save", saved.back());
    tools.push_back(packWithTools(scratch + "/files", scratch + "/packed.tgz"));
    print("tar --format=pax | gzip -9", tools.back());
  }
  printSummary(median(alone), median(saved), median(tools));
  std::filesystem::remove_all(scratch);
}

Options optionsFrom(int count, char** arguments) {
  Options options;
  for (int i = 1; i < count; i += 2) {
    const std::string_view name = arguments[i];
    if (i + 1 == count) fail("no value for " + std::string(name));
    if (name == "--megabytes") {
      options.megabytes = std::stoul(arguments[i + 1]);
    } else if (name == "--rounds") {
      options.rounds = std::stoi(arguments[i + 1]);
    } else if (name == "--directory") {
      options.directory = arguments[i + 1];
    } else {
      fail("unknown option " + std::string(name));
    }
  }
  return options;
}

}  // namespace

}  // namespace quillsift

int main(int count, char** arguments) {
  using namespace quillsift;
  std::setlocale(LC_CTYPE, "C.UTF-8");
  const Options options = optionsFrom(count, arguments);
  auto platform = makeLinuxPlatform({});
  platform->systemLog = std::make_unique<StandardErrorLog>();
  Platform::install(std::move(platform));
  run(options);
  return 0;
}
