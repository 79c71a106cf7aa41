#include "platform/linux/LostPages.h"

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace quillsift {

namespace {

std::atomic<bool> lost = false;
static_assert(std::atomic<bool>::is_always_lock_free, "set by a signal handler");
std::uintptr_t pageSize = 0;

// Only system calls: the thread may have been interrupted anywhere.
void fillLostPage(int signal, siginfo_t* information, void*) {
  const int saved = errno;
  const auto address = reinterpret_cast<std::uintptr_t>(information->si_addr);
  // NOLINTNEXTLINE(performance-no-int-to-ptr): pages are a matter of numbers
  void* const page = reinterpret_cast<void*>(address / pageSize * pageSize);
  constexpr int kFlags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED;
  if (information->si_code == BUS_ADRERR &&
      ::mmap(page, pageSize, PROT_READ | PROT_WRITE, kFlags, -1, 0) != MAP_FAILED) {
    lost = true;
  } else {
    ::signal(signal, SIG_DFL);  // not a lost page: the next one ends the process
  }
  errno = saved;
}

}  // namespace

void fillLostPagesWithZeros() {
  pageSize = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  struct sigaction action {};
  action.sa_sigaction = fillLostPage;
  action.sa_flags = SA_SIGINFO;
  ::sigemptyset(&action.sa_mask);
  (void)::sigaction(SIGBUS, &action, nullptr);
}

bool pagesWereLost() {
  return lost;
}

}  // namespace quillsift
