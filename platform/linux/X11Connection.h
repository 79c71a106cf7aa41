#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "platform/FileDescriptor.h"
#include "platform/linux/PlatformTree.h"
#include "platform/linux/TimerThread.h"

struct xcb_connection_t;

namespace quillsift {

// A connection to an X server that ends after a while, whatever the server does: a server that
// hangs must not keep a worker. From then on every call of the library returns with an error. The
// process must ignore SIGPIPE.
class X11Connection {
 public:
  // Waits for the server's welcome. Null with errno set: ECONNREFUSED or ENOENT where nobody
  // listens, ETIMEDOUT, EACCES when the server does not want us, else as from socket(2) and
  // connect(2).
  static std::unique_ptr<X11Connection> open(const std::string& socket, const PlatformTree& tree,
                                             std::chrono::nanoseconds limit);
  ~X11Connection();
  X11Connection(const X11Connection&) = delete;
  X11Connection& operator=(const X11Connection&) = delete;

  xcb_connection_t* get() const { return connection_; }
  // 0, ETIMEDOUT, or ECONNRESET when the server has gone or made no sense.
  int error() const;

 private:
  X11Connection(FileDescriptor socket, std::chrono::nanoseconds limit);

  const FileDescriptor socket_;  // of our own: the library closes its one whenever it likes
  std::atomic<bool> timedOut_ = false;
  xcb_connection_t* connection_ = nullptr;
  TimerThread watchdog_;  // last, so that it stops before the rest goes
};

}  // namespace quillsift
