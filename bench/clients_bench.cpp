// What many clients cost each other. 100 clients hear the pushes of a session of many small jobs;
// queries are timed in a quiet daemon, while jobs run, beside a client that never reads, and while
// a save compresses; and the answer to a save's start is timed.
//
//   bench_clients PREFIX     PREFIX: an installation (cmake --install BUILD --prefix PREFIX)

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "bench/DaemonUnderTest.h"
#include "daemon/protocol/QSServiceProtocols.h"
#include "platform/linux/SchedulingClass.h"

namespace quillsift {
namespace {

constexpr std::size_t kClients = 100;
constexpr int kSessions = 40;
constexpr int kReports = 500;  // each job is pushed twice

void fillTree(DaemonUnderTest& daemon, int reports) {
  for (const char* program :
       {"/usr/sbin/stallscope", "/usr/sbin/lsof", "/bin/ps", "/usr/bin/relquery",
        "/usr/sbin/platterctl", "/bin/df", "/usr/sbin/bootmark", "/bin/svcherd",
        "/usr/sbin/modtally", "/usr/bin/guardctl", "/usr/sbin/sysctl", "/usr/sbin/vaultkit",
        "/usr/libexec/fwlogdump", "/usr/sbin/drreg"}) {
    daemon.putProgram(program, BENCH_LIGHT_OUTPUT);
  }
  for (int i = 0; i < reports; ++i) {
    daemon.putFile("/Library/Logs/DiagnosticReports/" + std::to_string(i) + ".crash", "report\n");
  }
}

// What one client heard: for each push the job's uuid, in order.
struct Listener {
  std::vector<std::string> pushes;
  bool cleared = false;
};

void listen(RemoteService& service, Listener& listener) {
  service.setNotificationHandler(
      [&](const std::string& name, const std::vector<WireValue>& arguments) {
        if (name == wire::kJobStatusChanged) {
          listener.pushes.push_back(
              *arguments.at(0).as<WireDictionary>()->at("QSJobInfoUUID").as<std::string>());
        }
        if (name == wire::kQuillsiftDataCleared) listener.cleared = true;
      });
  while (!listener.cleared) {
    if (service.processEvents(std::chrono::minutes(2), -1) != RemoteService::Wake::event) {
      fail("a listener lost its connection");
    }
  }
}

void manyListeners(const std::string& prefix) {
  DaemonUnderTest daemon(prefix);
  fillTree(daemon, kReports);
  daemon.start();
  std::vector<Listener> listeners(kClients);
  std::vector<std::unique_ptr<RemoteService>> services;
  for (std::size_t i = 0; i < kClients; ++i)
    services.push_back(daemon.connect());
  const auto control = daemon.connect();
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] { listen(*services[i], listeners[i]); });
  }
  const double start = secondsNow();
  runSession(*control);
  const double seconds = secondsNow() - start;
  mustCall(*control, wire::kClearQuillsiftData);
  for (auto& thread : threads)
    thread.join();
  std::size_t different = 0;
  for (const Listener& listener : listeners) {
    if (listener.pushes != listeners.front().pushes) ++different;
  }
  std::printf("%zu clients, %zu pushes each in %.2f s: %zu heard something else (target 0)\n",
              kClients, listeners.front().pushes.size(), seconds, different);
}

struct Percentiles {
  double p50;
  double p99;
  std::size_t count;
};

// Whether the client that asks waits for a processor like everybody else. One that does not shows
// what is the daemon's part of an answer's time.
enum class Asking { ordinary, prompt };

// Times queries for as long as `go` is true, one every millisecond at most.
Percentiles timeQueries(const DaemonUnderTest& daemon, const std::function<bool()>& go) {
  const auto service = daemon.connect();
  std::vector<double> times;
  while (go()) {
    const double start = secondsNow();
    mustCall(*service, wire::kQueryJobStatusInformation);
    times.push_back(secondsNow() - start);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  std::sort(times.begin(), times.end());
  return {times.at(times.size() / 2), times.at(times.size() * 99 / 100), times.size()};
}

void print(const char* what, const Percentiles& times) {
  std::printf("  %-40s p50 %6.2f ms  p99 %6.2f ms  (%zu)\n", what, times.p50 * 1e3, times.p99 * 1e3,
              times.count);
}

// Queries while `sessions` sessions run one after another.
Percentiles duringSessions(const DaemonUnderTest& daemon, int sessions,
                           Asking asking = Asking::ordinary) {
  std::atomic<bool> running = true;
  std::thread control([&] {
    const auto service = daemon.connect();
    for (int i = 0; i < sessions; ++i) {
      runSession(*service);
      mustCall(*service, wire::kClearQuillsiftData);
    }
    running = false;
  });
  Percentiles times{};
  std::thread client([&] {
    if (asking == Asking::prompt) setPromptScheduling(Promptness::answers);
    times = timeQueries(daemon, [&] { return running.load(); });
  });
  control.join();
  client.join();
  return times;
}

// A peer that completes the handshake and then never reads.
int connectDeafPeer(const DaemonUnderTest& daemon) {
  const int peer = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  daemon.path("socket").copy(address.sun_path, sizeof address.sun_path - 1);
  if (::connect(peer, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    fail("connect");
  }
  std::string user = std::to_string(::getuid());
  std::string hex;
  for (const char c : user) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(c));
    hex += digits;
  }
  const std::string handshake = std::string(1, '\0') + "AUTH EXTERNAL " + hex + "\r\nBEGIN\r\n";
  if (::write(peer, handshake.data(), handshake.size()) < 0) fail("write");
  return peer;
}

void queriesUnderLoad(const std::string& prefix) {
  DaemonUnderTest daemon(prefix);
  fillTree(daemon, 100);
  daemon.start();
  int left = 500;
  std::printf("a query's answer (target p99 5 ms)\n");
  print("in a quiet daemon", timeQueries(daemon, [&] { return left-- > 0; }));
  const Percentiles alone = duringSessions(daemon, kSessions);
  print("while jobs run", alone);
  print("the same, the client never waiting", duringSessions(daemon, kSessions, Asking::prompt));
  const int deaf = connectDeafPeer(daemon);
  const Percentiles beside = duringSessions(daemon, kSessions);
  print("the same beside a client that never reads", beside);
  ::close(deaf);
  std::printf("  p99 beside a client that never reads: ratio %.2f (target below 2)\n",
              beside.p99 / alone.p99);
}

void queriesDuringASave(const std::string& prefix) {
  DaemonUnderTest daemon(prefix);
  fillTree(daemon, 100);
  daemon.putProgram("/bin/df", BENCH_RANDOM_OUTPUT);
  daemon.start();
  const auto service = daemon.connect();
  runSession(*service);
  std::atomic<bool> saving = true;
  double answer = 0;
  std::thread control([&] {
    // Refused for the instant between the session's date and the fall of its flag.
    for (bool started = false; !started;) {
      const double start = secondsNow();
      started = *mustCall(*service, wire::kSaveQuillsift,
                          {WireValue(daemon.path("x.tgz")), WireValue(true), WireValue(true)})
                     .at(0)
                     .as<bool>();
      answer = secondsNow() - start;
    }
    std::int64_t state = 0;
    service->setNotificationHandler(
        [&](const std::string& name, const std::vector<WireValue>& arguments) {
          if (name == wire::kReportSaveProgress) state = *arguments.at(1).as<std::int64_t>();
        });
    while (state < 2)
      service->processEvents(std::chrono::minutes(2), -1);
    if (state != 2) fail("the save failed");
    saving = false;
  });
  print("while a save compresses", timeQueries(daemon, [&] { return saving.load(); }));
  control.join();
  std::printf("a save's start is answered in %.2f ms (target 50 ms)\n", answer * 1e3);
}

}  // namespace
}  // namespace quillsift

int main(int count, char** arguments) {
  if (count < 2) {
    std::fprintf(stderr, "usage: bench_clients PREFIX\n");
    return 2;
  }
  quillsift::manyListeners(arguments[1]);
  quillsift::queriesUnderLoad(arguments[1]);
  quillsift::queriesDuringASave(arguments[1]);
}
