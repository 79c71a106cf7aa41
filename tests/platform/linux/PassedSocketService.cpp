// A service of its own process, started by PassedSocketConnectionTest with sockets passed to it as
// a service manager does. Prints one line when it listens (or cannot), and serves until its
// standard input ends.

#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "platform/linux/LinuxServiceConnections.h"
#include "platform/linux/LinuxWorkQueues.h"
#include "tests/platform/linux/ServiceFixture.h"

namespace {

using namespace quillsift;

int serve(const std::string& fallback) {
  std::vector<std::shared_ptr<quillsift::testing::TestPeer>> peers;  // the service thread's
  LinuxWorkQueues queues;
  LinuxServiceConnections connections(queues, fallback);
  const auto listener = connections.makeListener(quillsift::testing::kTestService);
  listener->setAcceptHandler([&](std::shared_ptr<ServiceConnection> connection) {
    peers.push_back(std::make_shared<quillsift::testing::TestPeer>(connection));
    peers.back()->install();
    connection->resume();
    return true;
  });
  QSError error;
  if (!listener->resume(&error)) {
    std::printf("cannot listen: %s\n", error.description().c_str());
    return 1;
  }
  std::puts("listening");
  std::fflush(stdout);
  char byte = 0;
  while (::read(STDIN_FILENO, &byte, 1) > 0) {
  }
  return 0;
}

}  // namespace

int main(int count, char** arguments) {
  return count == 2 ? serve(arguments[1]) : 2;
}
