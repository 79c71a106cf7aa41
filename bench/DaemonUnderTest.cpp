#include "bench/DaemonUnderTest.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>
#include <vector>

#include "daemon/protocol/QSServiceProtocols.h"
#include "platform/FileDescriptor.h"
#include "platform/linux/LinuxRemoteServiceConnector.h"

namespace quillsift {

namespace {

constexpr std::chrono::minutes kLimit{5};

const std::string& lastOfThePlan() {
  static const std::string path = "Logs/install.log";
  return path;
}

// Whether this notification tells that the last job of the plan has ended.
bool endsThePlan(const std::string& name, const std::vector<WireValue>& arguments) {
  if (name != wire::kJobStatusChanged) return false;
  const WireDictionary& record = *arguments.at(0).as<WireDictionary>();
  return *record.at("QSJobInfoRelativeFilePathAndName").as<std::string>() == lastOfThePlan() &&
         *record.at("QSJobInfoJobStatus").as<std::int64_t>() >= 2;
}

// Between two questions: asking at full speed would measure the asking.
void pause() {
  std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

// Memory files to which the links in a directory of the process lead: bytes by inode.
std::map<ino_t, std::size_t> memoryFilesIn(const std::string& directory) {
  constexpr std::size_t kBlock = 512;
  std::map<ino_t, std::size_t> files;
  std::error_code gone;
  for (const auto& entry : std::filesystem::directory_iterator(directory, gone)) {
    const std::string target = std::filesystem::read_symlink(entry.path(), gone);
    struct stat file {};
    if (!target.starts_with("/memfd:") || ::stat(entry.path().c_str(), &file) != 0) continue;
    files[file.st_ino] = static_cast<std::size_t>(file.st_blocks) * kBlock;
  }
  return files;
}

std::size_t sum(const std::map<ino_t, std::size_t>& files) {
  std::size_t bytes = 0;
  for (const auto& [inode, size] : files)
    bytes += size;
  return bytes;
}

bool isFinished(RemoteService& service) {
  return !mustCall(service, wire::kQueryJobStatusInformation).at(1).as<WireArray>()->empty();
}

FileDescriptor listenAt(const std::string& path, int type) {
  FileDescriptor listener(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener.get(), 256) != 0) {
    fail("socket " + path);
  }
  return listener;
}

}  // namespace

DaemonUnderTest::DaemonUnderTest(const std::string& installedPrefix) {
  char name[] = "/tmp/quillsift-bench-XXXXXX";
  if (::mkdtemp(name) == nullptr) fail("mkdtemp");
  directory_ = name;
  std::filesystem::create_directories(inTree("/etc"));
  std::filesystem::create_directories(inTree("/sys/class/block"));  // no device of this machine
  std::filesystem::copy_file(installedPrefix + "/libexec/quillsiftd", path("libexec/quillsiftd"));
  putFile("/etc/os-release", "ID=rescue\nBUILD_ID=1\n");
}

DaemonUnderTest::~DaemonUnderTest() {
  if (process_ > 0) {
    ::kill(process_, SIGTERM);
    ::waitpid(process_, nullptr, 0);
  }
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

std::string DaemonUnderTest::inTree(const std::string& planPath) const {
  return path("libexec/quillsift/platform") + planPath;
}

void DaemonUnderTest::putProgram(const std::string& planPath, const std::string& program) const {
  const std::filesystem::path target = inTree(planPath);
  std::filesystem::create_directories(target.parent_path());
  std::filesystem::remove(target);
  std::filesystem::create_symlink(program, target);
}

void DaemonUnderTest::putFile(const std::string& planPath, const std::string& content) const {
  const std::filesystem::path target = inTree(planPath);
  std::filesystem::create_directories(target.parent_path());
  std::ofstream(target, std::ios::binary) << content;
}

void DaemonUnderTest::hide(const std::string& planPath) const {
  putProgram(planPath, "/dev/null");
}

void DaemonUnderTest::start() {
  // With a socket for the kernel's events that has joined no group: the machine's own are none of a
  // benchmark's.
  const std::vector<FileDescriptor> passed = [this] {
    std::vector<FileDescriptor> sockets;
    sockets.push_back(listenAt(path("socket"), SOCK_STREAM));
    sockets.push_back(listenAt(path("kernel"), SOCK_SEQPACKET));
    sockets.emplace_back(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT));
    return sockets;
  }();
  const std::string service = kServiceName;
  const std::string names = service + ":" + service + ".kernel:" + service + ".kernel";
  process_ = ::fork();
  if (process_ == 0) {
    // As a service manager starts it: the scheduler shares the processors out by session first.
    ::setsid();
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    // Out of the way first: one may stand where another goes.
    constexpr int kFirstPassed = 3;
    std::vector<int> copies;
    for (const FileDescriptor& descriptor : passed)
      copies.push_back(::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, 16));
    for (std::size_t i = 0; i < copies.size(); ++i)
      ::dup2(copies[i], kFirstPassed + static_cast<int>(i));
    ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
    ::setenv("LISTEN_FDS", std::to_string(passed.size()).c_str(), 1);
    ::setenv("LISTEN_FDNAMES", names.c_str(), 1);
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    ::dup2(null, 0);
    const std::string program = path("libexec/quillsiftd");
    ::execl(program.c_str(), program.c_str(), nullptr);
    ::_exit(127);
  }
  if (process_ < 0) fail("fork");
}

std::unique_ptr<RemoteService> DaemonUnderTest::connect() const {
  QSError error;
  LinuxRemoteServiceConnector connector;
  auto service = connector.connect(path("socket"), serverProtocol(), clientProtocol(), &error);
  if (!service) fail("connect: " + error.description());
  return service;
}

ProcessUse DaemonUnderTest::use() const {
  const std::string directory = "/proc/" + std::to_string(process_);
  std::ifstream stat(directory + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  std::string skipped;
  for (int i = 0; i < 11; ++i)
    fields >> skipped;  // up to utime
  double user = 0, system = 0, childUser = 0, childSystem = 0;
  fields >> user >> system >> childUser >> childSystem;
  ProcessUse use;
  use.cpuSeconds =
      (user + system + childUser + childSystem) / static_cast<double>(::sysconf(_SC_CLK_TCK));
  std::ifstream status(directory + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) use.residentBytes = std::stoul(line.substr(6)) * 1024;
    if (line.starts_with("RssAnon:")) use.ownBytes = std::stoul(line.substr(8)) * 1024;
  }
  auto memoryFiles = memoryFilesIn(directory + "/fd");
  use.residentBytes += sum(memoryFiles);
  memoryFiles.merge(memoryFilesIn(directory + "/map_files"));
  use.ownBytes += sum(memoryFiles);
  return use;
}

std::vector<WireValue> mustCall(RemoteService& service, const std::string& method,
                                const std::vector<WireValue>& arguments) {
  QSError error;
  auto results = service.call(method, arguments, kLimit, &error);
  if (!results) fail(method + ": " + error.description());
  return *results;
}

void runSession(RemoteService& service) {
  bool ended = false;
  service.setNotificationHandler(
      [&](const std::string& name, const std::vector<WireValue>& arguments) {
        ended = ended || endsThePlan(name, arguments);
      });
  if (!*mustCall(service, wire::kStartQuillsift).at(0).as<bool>()) fail("the start was refused");
  while (!ended) {
    if (service.processEvents(kLimit, -1) != RemoteService::Wake::event) fail("no event came");
  }
  while (!isFinished(service))
    pause();
}

void saveSession(RemoteService& service, const std::string& destination, SaveForm form) {
  std::int64_t state = 0;
  service.setNotificationHandler(
      [&](const std::string& name, const std::vector<WireValue>& arguments) {
        if (name == wire::kReportSaveProgress) state = *arguments.at(1).as<std::int64_t>();
      });
  // Refused until the session's flag has fallen, which is an instant after its date is set.
  const std::vector<WireValue> arguments{WireValue(destination),
                                         WireValue(form == SaveForm::archive), WireValue(true)};
  while (!*mustCall(service, wire::kSaveQuillsift, arguments).at(0).as<bool>())
    pause();
  while (state < 2) {
    if (service.processEvents(kLimit, -1) != RemoteService::Wake::event) fail("no event came");
  }
  if (state != 2) fail("the save failed");
}

double secondsNow() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.at(values.size() / 2);
}

void fail(const std::string& what) {
  std::fprintf(stderr, "bench: %s\n", what.c_str());
  std::exit(1);
}

}  // namespace quillsift
