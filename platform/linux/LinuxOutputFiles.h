#pragma once

#include <memory>
#include <string>

#include "platform/OutputFiles.h"
#include "platform/linux/PlatformTree.h"

namespace quillsift {

class LinuxOutputFiles final : public OutputFiles {
 public:
  // By default without a tree.
  explicit LinuxOutputFiles(
      std::shared_ptr<const PlatformTree> tree = std::make_shared<const PlatformTree>(""));

  FileDescriptor openForWriting(const std::string& path) override;
  // The kernel has no such switch: flushToMedium drops the pages once they are clean.
  bool disableCaching(int descriptor) override;
  bool truncateAtPosition(int descriptor) override;
  bool flush(int descriptor) override;
  // fsync reaches the medium here.
  bool flushToMedium(int descriptor) override;
  bool leadsToFile(const std::string& path, int descriptor) override;
  bool renameAt(int fromDirectory, const std::string& from, int toDirectory,
                const std::string& to) override;
  bool flushDirectoryOf(const std::string& path) override;
  void remove(const std::string& path) override;

 private:
  // Where a path leads: on the host, or where that has no such directory, in the tree.
  std::string placeOf(const std::string& path) const;

  const std::shared_ptr<const PlatformTree> tree_;
};

}  // namespace quillsift
