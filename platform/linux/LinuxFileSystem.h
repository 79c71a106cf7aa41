#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/FileSystem.h"
#include "platform/linux/PlatformTree.h"

namespace quillsift {

// Files by path, looked up in the platform tree first, with LinuxFileHandle for an open one.
//
// Opening never has an effect on what is opened: a FIFO, a socket or a device is not opened for
// reading at all, so nobody waits, no writer wakes up and no device starts. Its metadata can be
// read, its content not (EINVAL).
class LinuxFileSystem : public FileSystem {
 public:
  explicit LinuxFileSystem(std::shared_ptr<const PlatformTree> tree);

  std::unique_ptr<FileHandle> open(const std::string& path, bool followLinks) override;
  std::unique_ptr<FileHandle> adopt(int descriptor, bool closeOnRelease) override;
  bool exists(const std::string& path) override;
  bool isDirectory(const std::string& path) override;
  std::vector<std::string> entryNames(const std::string& directory) override;
  std::optional<QSData> readWholeFile(const std::string& path, QSError* error) override;

 private:
  const std::shared_ptr<const PlatformTree> tree_;
};

}  // namespace quillsift
