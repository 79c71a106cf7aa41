// What the daemon's memory is before a session, with its results and after they are cleared. One
// command prints 1 GiB, the others a page, and a log of 256 MiB is mapped and then read by a save.
// Each round is a session that ends with a clear by hand and one that ends with a directory save.
//
//   bench_memory PREFIX [ROUNDS]     PREFIX: an installation (cmake --install BUILD --prefix
//   PREFIX)

#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "bench/DaemonUnderTest.h"
#include "daemon/protocol/QSServiceProtocols.h"

namespace quillsift {
namespace {

constexpr std::size_t kLogBytes = std::size_t{256} << 20;

double mebibytes(std::size_t bytes) {
  return static_cast<double>(bytes) / (1024 * 1024);
}

// What is let go of goes back to the kernel a little later, by a thread that leaves the processor
// to others: the figures once they stand still for two seconds.
ProcessUse settledUse(const DaemonUnderTest& daemon) {
  constexpr int kMostLooks = 1200;
  constexpr int kSameLooks = 40;
  ProcessUse use = daemon.use();
  for (int look = 0, same = 0; look < kMostLooks && same < kSameLooks; ++look) {
    ::usleep(50'000);
    const ProcessUse next = daemon.use();
    const bool unchanged = next.ownBytes == use.ownBytes && next.residentBytes == use.residentBytes;
    same = unchanged ? same + 1 : 0;
    use = next;
  }
  return use;
}

void print(const char* when, const ProcessUse& use, const ProcessUse& before) {
  const auto ratio = [](std::size_t now, std::size_t then) {
    return static_cast<double>(now) / static_cast<double>(then);
  };
  std::printf("  %-30s own %8.1f MiB (%7.2f)   resident %8.1f MiB (%7.2f)\n", when,
              mebibytes(use.ownBytes), ratio(use.ownBytes, before.ownBytes),
              mebibytes(use.residentBytes), ratio(use.residentBytes, before.residentBytes));
  std::fflush(stdout);
}

void fillTree(const DaemonUnderTest& daemon) {
  for (const char* program : {"/usr/sbin/lsof", "/bin/ps", "/bin/df", "/usr/sbin/sysctl"})
    daemon.putProgram(program, BENCH_LIGHT_OUTPUT);
  daemon.putProgram("/bin/ps", BENCH_HEAVY_OUTPUT);
  daemon.putFile("/var/log/system.log", std::string(kLogBytes, 'x'));
}

void run(const std::string& prefix, int rounds) {
  DaemonUnderTest daemon(prefix);
  fillTree(daemon);
  daemon.start();
  const auto service = daemon.connect();
  (void)mustCall(*service, wire::kQueryJobStatusInformation);
  const ProcessUse before = settledUse(daemon);
  if (::geteuid() != 0)
    std::printf("not root: own memory lacks what lies in mapped memory files\n");
  std::printf("the whole daemon, and in brackets beside what it was before the first session\n");
  print("before", before, before);
  for (int round = 1; round <= rounds; ++round) {
    std::printf("round %d\n", round);
    runSession(*service);
    print("with a session", settledUse(daemon), before);
    (void)mustCall(*service, wire::kClearQuillsiftData);
    print("after a clear", settledUse(daemon), before);
    runSession(*service);
    const std::string destination = daemon.path("saved");
    saveSession(*service, destination, SaveForm::directory);
    print("after a session and its save", settledUse(daemon), before);
    std::filesystem::remove_all(destination);
  }
}

}  // namespace
}  // namespace quillsift

int main(int count, char** arguments) {
  using namespace quillsift;
  if (count < 2) {
    std::fprintf(stderr, "usage: bench_memory PREFIX [ROUNDS]\n");
    return 2;
  }
  std::setlocale(LC_CTYPE, "C.UTF-8");
  run(arguments[1], count > 2 ? std::max(1, std::atoi(arguments[2])) : 3);
  return 0;
}
