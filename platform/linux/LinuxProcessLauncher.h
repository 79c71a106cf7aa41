#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/ProcessLauncher.h"

namespace quillsift {

// Starts children with posix_spawn. Any thread, any number at a time.
class LinuxProcessLauncher : public ProcessLauncher {
 public:
  // The file to execute in place of a path; empty: there is no such file.
  using Resolver = std::function<std::string(const std::string& path)>;

  // A parent may have left us with SIGCHLD ignored, and then nobody could wait for a child: it is
  // set back to its default here.
  explicit LinuxProcessLauncher(Resolver resolver);

  std::shared_ptr<ChildProcess> launch(const LaunchRequest& request, QSError* error) override;

 private:
  const Resolver resolver_;
};

}  // namespace quillsift
