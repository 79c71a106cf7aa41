// quillsiftd: started by the service manager, serves until it is killed. With --list-plan it only
// prints what a session collects, for the check of the platform tree.

#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "collect/PlanListing.h"
#include "daemon/KernelEvents.h"
#include "daemon/QSServiceDaemon.h"
#include "daemon/protocol/QSServiceProtocols.h"
#include "platform/Platform.h"
#include "platform/linux/LinuxPlatform.h"

namespace quillsift {
namespace {

// The single daemon and its port. Never destroyed: the process ends only by being killed.
std::shared_ptr<QSServiceDaemon>* theDaemon = nullptr;
KernelEventPort* theKernelPort = nullptr;

[[noreturn]] void waitForEver() {
  for (;;)
    ::pause();
}

int run() {
  // Before any thread: names of archive members are converted in this category, and only in it.
  std::setlocale(LC_CTYPE, "C.UTF-8");
  // A peer that hung up and a file-size limit are errors of one call, not the end of the daemon.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);

  Platform::install(
      makeLinuxPlatform({.treeDirectory = {}, .socketPath = {}, .makesTemporaryDirectory = true}));
  theDaemon = new std::shared_ptr<QSServiceDaemon>(QSServiceDaemon::init());
  QSError error;
  if (!(*theDaemon)->startListening(&error)) {
    // Nobody could ever reach this process: say so and let the service manager know.
    std::fprintf(stderr, "quillsiftd: cannot listen: %s\n", error.description().c_str());
    std::_Exit(EXIT_FAILURE);  // threads run already: nothing may be taken from under them
  }
  int ignored = 0;  // without the port the daemon still serves its clients
  theKernelPort = KernelEventPort::open(*theDaemon, &ignored).release();
  waitForEver();
}

}  // namespace
}  // namespace quillsift

int main(int count, char** arguments) {
  if (count == 2 && std::strcmp(arguments[1], "--list-plan") == 0) {
    const std::string listing = quillsift::planListing();
    return std::fputs(listing.c_str(), stdout) < 0 || std::fflush(stdout) != 0 ? 1 : 0;
  }
  return quillsift::run();
}
