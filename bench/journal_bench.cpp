// What the export of the journal costs compared with `journalctl -o export` of the same entries.
// Each round does both, one after the other: the builder with everything around it (a child, files
// in memory, their hand-over), and journalctl with the kinds' matches, once for each kind, into
// files in memory. All entries are of some kind, and none is left out by a limit.
//
// The target is for all kinds at once, which is what a session asks for. The lines above it are for
// one kind alone; a rare kind is not cheaper than the others, because every entry is looked at.
//
//   bench_journal [--entries N] [--rounds N]

#include <spawn.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/FileDescriptor.h"
#include "platform/linux/LinuxLogArchiveBuilder.h"

namespace quillsift {

namespace {

constexpr const char* kImporter = "/lib/systemd/systemd-journal-remote";
// Nothing is left out: both do the same work.
constexpr LogKindLimits kEverything{.size = std::int64_t{1} << 30, .age = 36000};

struct KindMatches {
  const char* kind;
  std::vector<std::string> matches;
};
const std::vector<KindMatches> kKinds = {
    {"persist", {"_TRANSPORT=journal", "_TRANSPORT=stdout"}},
    {"special", {"PRIORITY=0", "PRIORITY=1", "PRIORITY=2", "PRIORITY=3"}},
    {"signpost", {"_TRANSPORT=audit"}},
    {"highvolume", {"_TRANSPORT=syslog", "_TRANSPORT=kernel"}},
};

struct Options {
  std::size_t entries = 200'000;
  int rounds = 5;
};

[[noreturn]] void fail(const std::string& what) {
  std::cerr << "bench_journal: " << what << "\n";
  std::exit(1);
}

// Runs a program to its end; standard output goes to the descriptor.
void runProgram(const std::vector<std::string>& arguments, int output) {
  std::vector<char*> pointers;
  for (const std::string& argument : arguments)
    pointers.push_back(const_cast<char*>(argument.c_str()));
  pointers.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  pid_t child = 0;
  const int code = ::posix_spawnp(&child, pointers[0], &actions, nullptr, pointers.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  if (code != 0 || ::waitpid(child, &status, 0) != child || status != 0) {
    fail(arguments[0] + " failed");
  }
}

class Scratch {
 public:
  Scratch() {
    directory_ = std::filesystem::canonical(std::filesystem::temp_directory_path()) /
                 "quillsift-bench-XXXXXX";
    if (::mkdtemp(directory_.data()) == nullptr) fail("cannot make " + directory_);
  }
  ~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  std::string at(const std::string& path) const { return directory_ + "/" + path; }

 private:
  std::string directory_;
};

// Services, kernel and audit trail mixed, some of them urgent; all some minutes old.
void makeJournal(const std::string& directory, std::size_t entries) {
  const std::string source = directory + "/entries.txt";
  std::ofstream text(source);
  constexpr const char* kTransports[] = {"journal", "stdout",  "syslog",
                                         "kernel",  "journal", "audit"};
  const std::uint64_t start = (static_cast<std::uint64_t>(::time(nullptr)) - 600) * 1'000'000;
  for (std::size_t i = 0; i < entries; ++i) {
    const std::string unit = "service-" + std::to_string(i % 40);
    text << "__REALTIME_TIMESTAMP=" << start + i << "\n__MONOTONIC_TIMESTAMP=" << 1000 + i
         << "\n_BOOT_ID=00000000000000000000000000000b01"
         << "\n_MACHINE_ID=000000000000000000000000000000aa"
         << "\n_HOSTNAME=rescue\n_UID=0\n_GID=0\n_TRANSPORT=" << kTransports[i % 6]
         << "\nPRIORITY=" << (i % 50 == 0 ? 3 : 6) << "\nSYSLOG_IDENTIFIER=" << unit
         << "\n_PID=" << i % 300 << "\n_COMM=" << unit << "\n_EXE=/usr/lib/" << unit
         << "\n_CMDLINE=/usr/lib/" << unit << " --foreground\n_SYSTEMD_UNIT=" << unit
         << ".service\nMESSAGE=Request " << i << " of this service took " << i % 977
         << " ms and was answered\n\n";
  }
  text.close();
  runProgram({kImporter, "-o", directory + "/system.journal", source}, STDERR_FILENO);
  std::filesystem::remove(source);
}

FileDescriptor memoryFile() {
  FileDescriptor file(::memfd_create("journalctl", MFD_CLOEXEC));
  if (!file.valid()) fail("no memory");
  return file;
}

std::size_t sizeOf(int descriptor) {
  struct stat status {};
  if (::fstat(descriptor, &status) != 0) fail("fstat failed");
  return static_cast<std::size_t>(status.st_size);
}

double secondsOf(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

class Comparison {
 public:
  Comparison(const std::string& journal, LinuxLogArchiveBuilder builder)
      : journal_(journal), builder_(std::move(builder)) {}

  // Both ways for these kinds, and the bytes that came out, which must be the same.
  void run(const std::string& name, const std::vector<KindMatches>& kinds, int rounds) {
    std::vector<double> ours, theirs;
    std::size_t bytes = 0;
    for (int round = 0; round < rounds; ++round) {
      std::size_t ourBytes = 0, theirBytes = 0;
      ours.push_back(secondsOf([&] { ourBytes = build(kinds); }));
      theirs.push_back(secondsOf([&] { theirBytes = journalctl(kinds); }));
      if (ourBytes != theirBytes) {
        fail(name + ": " + std::to_string(ourBytes) + " bytes, journalctl has " +
             std::to_string(theirBytes));
      }
      bytes = ourBytes;
    }
    std::printf("%-10s %7.1f MB  export %6.3f s  journalctl %6.3f s  ratio %5.2f\n", name.c_str(),
                static_cast<double>(bytes) / 1e6, median(ours), median(theirs),
                median(ours) / median(theirs));
  }

 private:
  std::size_t build(const std::vector<KindMatches>& kinds) {
    std::map<std::string, LogKindLimits> limits;
    for (const KindMatches& kind : kinds)
      limits[kind.kind] = kEverything;
    std::size_t bytes = 0;
    const auto warning = [](const char* text) { std::cerr << text << "\n"; };
    const auto member = [&](int descriptor, const char*) {
      bytes += sizeOf(descriptor);
      return 0;
    };
    if (builder_.build(limits, warning, member) != 0) fail("no export");
    return bytes;
  }
  std::size_t journalctl(const std::vector<KindMatches>& kinds) const {
    std::size_t bytes = 0;
    for (const KindMatches& kind : kinds) {
      std::vector<std::string> arguments = {"journalctl", "-q", "-D", journal_, "-o", "export"};
      arguments.insert(arguments.end(), kind.matches.begin(), kind.matches.end());
      const FileDescriptor output = memoryFile();
      runProgram(arguments, output.get());
      bytes += sizeOf(output.get());
    }
    return bytes;
  }

  const std::string journal_;
  LinuxLogArchiveBuilder builder_;
};

Options parse(const std::vector<std::string_view>& arguments) {
  Options options;
  for (std::size_t i = 0; i + 1 < arguments.size(); i += 2) {
    const int value = std::atoi(std::string(arguments[i + 1]).c_str());
    if (arguments[i] == "--entries" && value > 0) {
      options.entries = static_cast<std::size_t>(value);
    } else if (arguments[i] == "--rounds" && value > 0) {
      options.rounds = value;
    } else {
      fail("usage: bench_journal [--entries N] [--rounds N]");
    }
  }
  return options;
}

int main(const Options& options) {
  const Scratch scratch;
  const std::string journal = scratch.at("var/log/journal");
  std::filesystem::create_directories(journal);
  // The machine's own entries have no part in this.
  std::filesystem::create_directories(scratch.at("run/log"));
  std::filesystem::create_symlink("/dev/null", scratch.at("run/log/journal"));
  makeJournal(journal, options.entries);
  Comparison comparison(journal,
                        LinuxLogArchiveBuilder(std::make_shared<const PlatformTree>(scratch.at("")),
                                               QUILLSIFT_JOURNAL_EXPORT));
  std::printf("%zu entries, medians of %d rounds; target for all four: ratio 1.20\n",
              options.entries, options.rounds);
  for (const KindMatches& kind : kKinds)
    comparison.run(kind.kind, {kind}, options.rounds);
  comparison.run("all four", kKinds, options.rounds);
  return 0;
}

}  // namespace

}  // namespace quillsift

int main(int count, char** arguments) {
  return quillsift::main(quillsift::parse({arguments + 1, arguments + count}));
}
