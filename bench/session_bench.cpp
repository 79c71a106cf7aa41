// What the daemon adds to a session. Each round runs a whole session, from the start call to the
// saved archive, and then a bare program that spawns the same commands at once, keeps their output
// and writes the same archive with libarchive, flushed and renamed alike. First with the light
// commands of this machine, then with a stand-in that does nothing but print a page, which leaves
// hardly more than what the daemon adds. Then: how fast the plan's commands run with a large output
// held, against without.
//
//   bench_session PREFIX [ROUNDS]     PREFIX: an installation (cmake --install BUILD --prefix
//   PREFIX)

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/DaemonUnderTest.h"
#include "collect/CollectionPlan.h"

extern char** environ;

namespace quillsift {
namespace {

constexpr const char* kHeavyProgram = "/usr/sbin/lsof";  // of the plan's first step

struct PlannedCommand {
  Command command;
  std::string relativePath;
  std::string program;  // the one behind the command's path
};

// The command rows that a machine of this kind runs.
std::vector<PlannedCommand> plannedCommands() {
  std::vector<PlannedCommand> commands;
  for (const PlanItem& item : collectionPlan()) {
    const auto* row = std::get_if<PlanRow>(&item);
    const auto* command = row != nullptr ? std::get_if<Command>(&row->source) : nullptr;
    if (command == nullptr) continue;
    const PlanHosts hosts = row->condition.hosts;
    if (hosts == PlanHosts::all || hosts == PlanHosts::otherSilicon) {
      commands.push_back({*command, row->relativePath, BENCH_LIGHT_OUTPUT});
    }
  }
  return commands;
}

// Those for which this machine has a light program; the others print a page.
std::vector<PlannedCommand> lightCommands(const std::string& prefix) {
  std::vector<PlannedCommand> commands = plannedCommands();
  for (PlannedCommand& command : commands) {
    const std::string& path = command.command.program;
    if (path == kHeavyProgram || path == "/usr/sbin/stallscope") continue;
    for (const std::string& place : {prefix + "/libexec/quillsift/platform" + path, path}) {
      if (::access(place.c_str(), X_OK) != 0) continue;
      command.program = place;
      break;
    }
  }
  return commands;
}

struct Capture {
  pid_t process = -1;
  int pipe = -1;
  std::string output;
  timespec ended{};
};

Capture spawn(const PlannedCommand& planned) {
  const Command& command = planned.command;
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) fail("pipe");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
  posix_spawn_file_actions_adddup2(&actions, ends[1], 2);
  std::vector<char*> arguments{const_cast<char*>(command.program.c_str())};
  for (const std::string& argument : command.arguments) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  Capture capture;
  if (::posix_spawn(&capture.process, planned.program.c_str(), &actions, nullptr, arguments.data(),
                    environ) != 0) {
    fail("posix_spawn");
  }
  posix_spawn_file_actions_destroy(&actions);
  ::close(ends[1]);
  capture.pipe = ends[0];
  return capture;
}

void readAll(std::vector<Capture>& captures) {
  std::vector<char> buffer(256 * 1024);
  for (std::size_t open = captures.size(); open > 0;) {
    std::vector<pollfd> waiting;
    for (const Capture& capture : captures)
      waiting.push_back({capture.pipe, POLLIN, 0});
    ::poll(waiting.data(), waiting.size(), -1);
    for (std::size_t i = 0; i < captures.size(); ++i) {
      if (waiting[i].revents == 0) continue;
      const ssize_t count = ::read(captures[i].pipe, buffer.data(), buffer.size());
      if (count > 0) {
        captures[i].output.append(buffer.data(), static_cast<std::size_t>(count));
      } else {
        ::close(captures[i].pipe);
        captures[i].pipe = -1;
        ::waitpid(captures[i].process, nullptr, 0);
        ::clock_gettime(CLOCK_REALTIME, &captures[i].ended);
        --open;
      }
    }
  }
}

void writeBareArchive(const std::string& path, const std::vector<PlannedCommand>& commands,
                      const std::vector<Capture>& captures) {
  const std::string temporary = path + ".tmp";
  const int descriptor = ::open(temporary.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  archive* writer = archive_write_new();
  archive_write_set_format_pax(writer);
  archive_write_add_filter_gzip(writer);
  archive_write_set_options(writer, "compression-level=9");
  archive_write_open_fd(writer, descriptor);
  for (std::size_t i = 0; i < commands.size(); ++i) {
    archive_entry* entry = archive_entry_new();
    archive_entry_set_pathname(entry, commands[i].relativePath.c_str());
    archive_entry_set_size(entry, static_cast<la_int64_t>(captures[i].output.size()));
    archive_entry_set_filetype(entry, AE_IFREG);
    archive_entry_set_perm(entry, 0644);
    archive_entry_set_mtime(entry, captures[i].ended.tv_sec, captures[i].ended.tv_nsec);
    archive_entry_set_birthtime(entry, captures[i].ended.tv_sec, captures[i].ended.tv_nsec);
    archive_write_header(writer, entry);
    archive_write_data(writer, captures[i].output.data(), captures[i].output.size());
    archive_entry_free(entry);
  }
  archive_write_close(writer);
  archive_write_free(writer);
  ::fsync(descriptor);
  ::rename(temporary.c_str(), path.c_str());
  ::close(descriptor);
  const int directory = ::open(path.substr(0, path.rfind('/')).c_str(), O_RDONLY | O_DIRECTORY);
  ::fsync(directory);
  ::close(directory);
}

struct Round {
  double wall;
  double cpu;
};

// In a process of its own, so that its CPU and that of its children can be told.
Round bareRound(const std::vector<PlannedCommand>& commands, const std::string& destination) {
  const double start = secondsNow();
  const pid_t process = ::fork();
  if (process == 0) {
    std::vector<Capture> captures;
    captures.reserve(commands.size());
    for (const PlannedCommand& command : commands)
      captures.push_back(spawn(command));
    readAll(captures);
    writeBareArchive(destination, commands, captures);
    ::_exit(0);
  }
  rusage usage{};
  int status = 0;
  ::wait4(process, &status, 0, &usage);
  if (status != 0) fail("the bare program failed");
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
  };
  return {secondsNow() - start, seconds(usage.ru_utime) + seconds(usage.ru_stime)};
}

void fillTree(DaemonUnderTest& daemon, const std::vector<PlannedCommand>& commands) {
  for (const PlannedCommand& command : commands)
    daemon.putProgram(command.command.program, command.program);
  for (const char* log : {"system", "rescueos", "migration", "strata_convert", "fsck_vellum",
                          "fsck_strata", "seekbeacon", "automation_trampoline", "install"}) {
    daemon.hide("/var/log/" + std::string(log) + ".log");
  }
  for (const char* path : {"/var/log/io.vantor.weft.herdkeeper", "/Library", "/Volumes",
                           "/private/var/log/stw", "/System/Volumes"}) {
    daemon.hide(path);
  }
}

void compareSessions(const std::string& prefix, const char* kind,
                     const std::vector<PlannedCommand>& commands, int rounds) {
  DaemonUnderTest daemon(prefix);
  fillTree(daemon, commands);
  daemon.start();
  const auto service = daemon.connect();
  std::vector<double> daemonWall, bareWall, ratios;
  double bareCPU = 0;
  double daemonCPU = 0;
  for (int round = -1; round < rounds; ++round) {  // the first is a warm-up
    const double before = daemon.use().cpuSeconds;
    const double start = secondsNow();
    runSession(*service);
    saveSession(*service, daemon.path("session.tgz"));
    const double wall = secondsNow() - start;
    const double cpu = daemon.use().cpuSeconds - before;
    const Round bare = bareRound(commands, daemon.path("bare.tgz"));
    if (round < 0) continue;
    daemonWall.push_back(wall);
    bareWall.push_back(bare.wall);
    ratios.push_back(wall / bare.wall);
    daemonCPU += cpu;
    bareCPU += bare.cpu;
  }
  std::printf("%zu %s, start to saved archive, %d rounds\n", commands.size(), kind, rounds);
  std::printf("  wall: daemon %.1f ms, bare %.1f ms, ratio %.2f (target 1.25)\n",
              median(daemonWall) * 1e3, median(bareWall) * 1e3, median(ratios));
  std::printf("  CPU:  daemon %.1f ms, bare %.1f ms, ratio %.2f (target 1.10)\n",
              daemonCPU / rounds * 1e3, bareCPU / rounds * 1e3, daemonCPU / bareCPU);
}

// Time of a session behind its first step, in which one command prints what `first` prints.
double restOfSession(const std::string& prefix, const std::string& first, std::size_t* held) {
  DaemonUnderTest daemon(prefix);
  fillTree(daemon, plannedCommands());
  daemon.putProgram(kHeavyProgram, first);
  daemon.start();
  const auto service = daemon.connect();
  std::vector<double> times;
  for (int round = 0; round < 3; ++round) {
    double firstEnded = 0;
    double ended = 0;
    service->setNotificationHandler(
        [&](const std::string& name, const std::vector<WireValue>& arguments) {
          if (name != "jobStatusChangedWithInfo") return;
          const auto& record = *arguments.at(0).as<WireDictionary>();
          if (*record.at("QSJobInfoJobStatus").as<std::int64_t>() < 2) return;
          const auto& path = *record.at("QSJobInfoRelativeFilePathAndName").as<std::string>();
          if (path == "lsof.txt") firstEnded = secondsNow();
          if (path == "Logs/install.log") ended = secondsNow();
        });
    while (!*mustCall(*service, "startQuillsift").at(0).as<bool>()) {
      ::usleep(1000);  // the session before is about to end
    }
    while (ended == 0)
      service->processEvents(std::chrono::minutes(1), -1);
    times.push_back(ended - firstEnded);
  }
  *held = daemon.use().residentBytes;
  return median(times);
}

void compareWithOutputHeld(const std::string& prefix) {
  std::size_t empty = 0;
  std::size_t full = 0;
  const double without = restOfSession(prefix, BENCH_LIGHT_OUTPUT, &empty);
  const double with = restOfSession(prefix, BENCH_HEAVY_OUTPUT, &full);
  std::printf("spawning with a large output held (daemon: %zu MiB against %zu MiB)\n", full >> 20,
              empty >> 20);
  std::printf("  rest of the plan: %.1f ms, without %.1f ms, rate %.2f (target 0.80)\n", with * 1e3,
              without * 1e3, without / with);
}

}  // namespace
}  // namespace quillsift

int main(int count, char** arguments) {
  using namespace quillsift;
  if (count < 2) {
    std::fprintf(stderr, "usage: bench_session PREFIX [ROUNDS]\n");
    return 2;
  }
  std::setlocale(LC_CTYPE, "C.UTF-8");
  const std::string prefix = arguments[1];
  const int rounds = count > 2 ? std::max(1, std::atoi(arguments[2])) : 21;
  compareSessions(prefix, "light commands", lightCommands(prefix), std::max(1, rounds / 4));
  compareSessions(prefix, "commands that do nothing", plannedCommands(), rounds);
  compareWithOutputHeld(prefix);
}
