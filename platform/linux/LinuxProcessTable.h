#pragma once

#include <memory>
#include <string>

#include "platform/ProcessTable.h"
#include "platform/linux/PlatformTree.h"

namespace quillsift {

// The processes in /proc. The kernel keeps 15 characters of a command's name: a record has up to 16
// of the executable's, where these begin with what the kernel keeps.
class LinuxProcessTable : public ProcessTable {
 public:
  explicit LinuxProcessTable(std::shared_ptr<const PlatformTree> tree);

  int readAll(void* out, std::size_t* length) override;
  int sendSignal(pid_t process, int signal) override;
  void waitForExit(pid_t process, std::chrono::milliseconds limit) override;

 private:
  const std::shared_ptr<const PlatformTree> tree_;
};

// A process's short name, of what the kernel keeps and of its executable's path.
std::string shortCommandName(const std::string& kept, const std::string& executable);

}  // namespace quillsift
