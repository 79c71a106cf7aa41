// print_inheritance: prints what a child gets from its parent, one thing a line.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

int main(int, char** arguments) {
  std::printf("name %s\n", arguments[0]);
  std::printf("nice %d\n", ::getpriority(PRIO_PROCESS, 0));
  const long io = ::syscall(SYS_ioprio_get, 1, 0);
  std::printf("io %ld %ld\n", io >> 13, io & 7);
  std::printf("descriptors");
  for (int descriptor = 0; descriptor < 4096; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) != -1) std::printf(" %d", descriptor);
  }
  std::printf("\nignored");
  for (int signal = 1; signal < SIGRTMAX + 1; ++signal) {
    struct sigaction action {};
    const bool known = ::sigaction(signal, nullptr, &action) == 0;
    if (known && action.sa_handler != SIG_DFL) std::printf(" %d", signal);
  }
  std::printf("\nblocked");
  sigset_t blocked;
  ::sigprocmask(SIG_BLOCK, nullptr, &blocked);
  for (int signal = 1; signal < SIGRTMAX + 1; ++signal) {
    if (::sigismember(&blocked, signal) == 1) std::printf(" %d", signal);
  }
  std::printf("\n");
  return 0;
}
