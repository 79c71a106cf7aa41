#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/QSData.h"
#include "platform/QSError.h"
#include "platform/QualityOfService.h"

namespace quillsift {

struct LaunchRequest {
  std::string executablePath;          // absolute, started as it is: no shell, no search
  std::vector<std::string> arguments;  // behind argv[0], which is executablePath
  QOSClass qos = QOSClass::standard;   // the child's class
  bool captureOutput = true;           // false: standard output and error go to the null device
};

// One child that was started. Its environment, working directory and standard input are the
// daemon's; nothing else is inherited: no descriptor, no ignored signal, no signal mask.
//
// Threads: readOutputToEnd and waitUntilExit on the thread that owns the run; the rest on any.
// Destroying it while the child runs kills and reaps the child.
class ChildProcess {
 public:
  virtual ~ChildProcess() = default;

  virtual pid_t processIdentifier() const = 0;
  // True until the child has been reaped.
  virtual bool isRunning() const = 0;
  // Everything the child and whoever holds its output open write until the last of them closes it,
  // standard output and error interleaved as written. Held once, whatever its size. No limit and
  // no timeout. Throws std::bad_alloc when memory runs out, std::system_error when reading fails.
  virtual QSData readOutputToEnd() = 0;
  // Waits for the child and returns its exit code, or the number of the signal that ended it.
  virtual int waitUntilExit() = 0;
  // Sends SIGKILL to the child alone; never to another process that got its number. Does not block.
  virtual void kill() = 0;
};

class ProcessLauncher {
 public:
  virtual ~ProcessLauncher() = default;

  // Null and `error` (POSIX domain, the path) when the child could not be started.
  virtual std::shared_ptr<ChildProcess> launch(const LaunchRequest& request, QSError* error) = 0;
};

}  // namespace quillsift
