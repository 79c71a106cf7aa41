#include "tools/SeparateWork.h"

#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <exception>
#include <utility>

#include "tools/Files.h"

namespace quillsift::tools {

namespace {

constexpr rlim_t kMemory = rlim_t{64} << 20;  // beyond what the process has from the start
constexpr int kWrittenDescriptor = 3;

// A process that has no right to become somebody else stays what it is.
bool takeOn(Account account) {
  if (::geteuid() != 0) return true;
  return ::setgroups(0, nullptr) == 0 &&
         ::setresgid(account.group, account.group, account.group) == 0 &&
         ::setresuid(account.user, account.user, account.user) == 0;
}

bool limitMemory() {
  const std::string pages = readLine("/proc/self/statm").value_or("");
  rlim_t used = 0;
  if (std::from_chars(pages.data(), pages.data() + pages.size(), used).ec != std::errc()) {
    return false;
  }
  const rlim_t most = used * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE)) + kMemory;
  const rlimit memory{most, most};
  const rlimit file{SeparateWork::kMostBytes, SeparateWork::kMostBytes};
  return ::setrlimit(RLIMIT_AS, &memory) == 0 && ::setrlimit(RLIMIT_FSIZE, &file) == 0;
}

// Leaves the work no descriptor that could lead to somebody else's.
bool keepOnly(int written) {
  if (written != kWrittenDescriptor && ::dup2(written, kWrittenDescriptor) < 0) return false;
  return ::close_range(kWrittenDescriptor + 1, UINT_MAX, 0) == 0;
}

bool carryOut(Account account, const SeparateWork::Work& work, int written) {
  if (!keepOnly(written) || !limitMemory() || !takeOn(account)) return false;
  // Behind the change of accounts, which would undo it.
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) return false;
  Output output(kWrittenDescriptor);
  if (!work(output)) return false;
  output.flush();
  struct stat status {};
  return ::fstat(kWrittenDescriptor, &status) == 0 &&
         static_cast<std::size_t>(status.st_size) == output.size();
}

}  // namespace

SeparateWork::SeparateWork(Account account, const Work& work)
    : written_(::memfd_create("result", MFD_CLOEXEC)) {
  if (!written_.valid()) return;
  process_ = ::fork();
  if (process_ != 0) return;
  bool isDone = false;
  try {
    isDone = carryOut(account, work, written_.get());
  } catch (const std::exception&) {  // no memory: it has failed
  }
  ::_exit(isDone ? 0 : 1);
}

SeparateWork::~SeparateWork() {
  if (process_ <= 0) return;
  ::kill(process_, SIGKILL);
  ::waitpid(process_, nullptr, 0);
}

bool SeparateWork::isDone(Clock::time_point end) {
  if (process_ <= 0) return false;
  const Descriptor process(static_cast<int>(::syscall(SYS_pidfd_open, process_, 0)));
  pollfd ended{.fd = process.get(), .events = POLLIN, .revents = 0};
  int count = -1;
  do {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    count = process.valid()
                ? ::poll(&ended, 1, static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX)))
                : 0;
  } while (count < 0 && errno == EINTR);
  if (count <= 0) return false;
  int status = 0;
  const pid_t waited = ::waitpid(std::exchange(process_, -1), &status, 0);
  return waited > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::optional<std::string> SeparateWork::result(Clock::time_point end) {
  if (!isDone(end)) return std::nullopt;
  return readFile("/proc/self/fd/" + std::to_string(written_.get()), kMostBytes);
}

}  // namespace quillsift::tools
