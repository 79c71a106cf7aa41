#pragma once

#include <memory>
#include <mutex>
#include <string_view>

#include "platform/FileDescriptor.h"
#include "platform/SystemLog.h"
#include "platform/linux/PlatformTree.h"

namespace quillsift {

// /dev/console, which never becomes the controlling terminal.
class LinuxSystemConsole : public SystemConsole {
 public:
  explicit LinuxSystemConsole(std::shared_ptr<const PlatformTree> tree);

  void write(std::string_view bytes) override;

 private:
  void open();

  const std::shared_ptr<const PlatformTree> tree_;
  std::once_flag opened_;
  FileDescriptor console_;  // set once, under opened_
};

}  // namespace quillsift
