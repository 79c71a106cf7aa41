#include "platform/linux/LostPageGuard.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <mutex>
#include <string_view>
#include <vector>

#include "platform/Mutex.h"
#include "platform/linux/FileReading.h"

namespace quillsift {

namespace {

constexpr std::size_t kMostRanges = 65536;
constexpr std::size_t kUsualMappingLimit = 65530;  // the kernel's, unless set otherwise

// --- What the handler reads: no locks, no memory of the heap, nothing that ever goes away.

// Free while `begin` is 0. Only that is stored in between when a range gives way to another, so an
// end is never seen with the begin of another range: see holds().
struct Range {
  std::atomic<std::uintptr_t> begin;
  std::atomic<std::uintptr_t> end;

  bool holds(std::uintptr_t address) const {
    const std::uintptr_t first = begin.load();
    if (first == 0 || address < first || address >= end.load()) return false;
    return begin.load() == first;
  }
};

static_assert(std::atomic<std::uintptr_t>::is_always_lock_free);

constinit std::array<Range, kMostRanges> ranges{};
constinit std::atomic<std::size_t> rangesEverUsed = 0;
constinit std::atomic<std::size_t> lastFound = 0;  // lost pages come in a row
constinit std::uintptr_t pageSize = 0;             // set before the handler is
constinit struct sigaction previousAction {};      // likewise

const Range* rangeAround(std::uintptr_t address) {
  const Range& likely = ranges[lastFound.load()];
  if (likely.holds(address)) return &likely;
  const std::size_t count = rangesEverUsed.load();
  for (std::size_t index = 0; index < count; ++index) {
    if (!ranges[index].holds(address)) continue;
    lastFound.store(index);
    return &ranges[index];
  }
  return nullptr;
}

bool putZeros(std::uintptr_t begin, std::size_t length) {
  constexpr int kFlags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE;
#ifdef __SANITIZE_THREAD__
  // The thread sanitizer takes a mapping for a write, and other threads may read the page
  // meanwhile.
  return ::syscall(SYS_mmap, begin, length, PROT_READ, kFlags, -1, 0) != -1;
#else
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the address of a fault is a number.
  void* const place = reinterpret_cast<void*>(begin);
  return ::mmap(place, length, PROT_READ, kFlags, -1, 0) != MAP_FAILED;
#endif
}

// The faulting thread keeps the range in being, so nobody unmaps it meanwhile.
bool replaceLostPage(std::uintptr_t address) {
  const Range* const range = rangeAround(address);
  if (range == nullptr) return false;
  if (putZeros(address & ~(pageSize - 1), pageSize)) return true;
  // Splitting takes one more mapping than the process may have; replacing the whole does not.
  const std::uintptr_t begin = range->begin.load();
  return putZeros(begin, range->end.load() - begin);
}

bool isLostPage(const siginfo_t& info) {
  return info.si_code == BUS_ADRERR || info.si_code == BUS_MCEERR_AR;
}

void endByDefault(int signal, const siginfo_t& info) {
  struct sigaction byDefault {};
  byDefault.sa_handler = SIG_DFL;
  ::sigaction(signal, &byDefault, nullptr);
  // A fault comes again, and then tells a debugger where; what was sent does not.
  const bool comesAgain = isLostPage(info) || info.si_code == BUS_ADRALN;
  if (!comesAgain) ::raise(signal);
}

void passOn(int signal, siginfo_t* info, void* context) {
  if ((previousAction.sa_flags & SA_SIGINFO) != 0) {
    previousAction.sa_sigaction(signal, info, context);
  } else if (previousAction.sa_handler == SIG_IGN && info->si_code <= 0) {
    return;  // sent by a process; a fault cannot be ignored
  } else if (previousAction.sa_handler == SIG_DFL || previousAction.sa_handler == SIG_IGN) {
    endByDefault(signal, *info);
  } else {
    previousAction.sa_handler(signal);
  }
}

void handleBusError(int signal, siginfo_t* info, void* context) {
  const int kept = errno;
  const bool replaced =
      isLostPage(*info) && replaceLostPage(reinterpret_cast<std::uintptr_t>(info->si_addr));
  if (!replaced) passOn(signal, info, context);
  errno = kept;
}

// --- The rest, which handlers never touch.

Mutex mutex;
std::vector<LostPageGuard::Ticket>& freeTickets() QS_REQUIRES(mutex) {
  // Never destroyed: data may be released after static objects are.
  static auto* const tickets = new std::vector<LostPageGuard::Ticket>();
  return *tickets;
}
std::size_t rangesInUse QS_GUARDED_BY(mutex) = 0;

void install() {
  pageSize = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  ::sigaction(SIGBUS, nullptr, &previousAction);
  struct sigaction action {};
  action.sa_sigaction = handleBusError;
  action.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
  ::sigemptyset(&action.sa_mask);
  ::sigaction(SIGBUS, &action, nullptr);
}

std::size_t mappingLimit() {
  std::size_t limit = kUsualMappingLimit;
  const auto text = readSmallFile("/proc/sys/vm/max_map_count");
  if (text) std::from_chars(text->text().data(), text->text().data() + text->length(), limit);
  return limit;
}

}  // namespace

std::size_t LostPageGuard::room() {
  static const std::size_t room = std::min(mappingLimit() / 4, kMostRanges);
  return room;
}

std::optional<LostPageGuard::Ticket> LostPageGuard::add(const void* begin, std::size_t length,
                                                        std::size_t most) {
  static std::once_flag installed;
  std::call_once(installed, install);
  const auto first = reinterpret_cast<std::uintptr_t>(begin);
  const std::uintptr_t wholePages = (length + pageSize - 1) & ~(pageSize - 1);

  const MutexLock lock(mutex);
  if (rangesInUse >= std::min(most, room())) return std::nullopt;
  // Giving a ticket back must not take memory.
  auto& tickets = freeTickets();
  if (tickets.capacity() <= rangesInUse + tickets.size())
    tickets.reserve(2 * tickets.capacity() + 64);
  Ticket ticket = rangesEverUsed.load();
  if (!freeTickets().empty()) {
    ticket = freeTickets().back();
    freeTickets().pop_back();
  }
  ++rangesInUse;
  ranges[ticket].end.store(first + wholePages);
  ranges[ticket].begin.store(first);
  if (ticket == rangesEverUsed.load()) rangesEverUsed.store(ticket + 1);
  return ticket;
}

void LostPageGuard::remove(Ticket ticket) {
  const MutexLock lock(mutex);
  ranges[ticket].begin.store(0);
  --rangesInUse;
  freeTickets().push_back(ticket);
}

}  // namespace quillsift
