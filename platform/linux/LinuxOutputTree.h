#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "platform/FileDescriptor.h"
#include "platform/OutputTrees.h"

namespace quillsift {

// A directory and how it is reached. Descriptors of places, not open for reading.
struct OutputTreePlace {
  FileDescriptor directory;
  FileDescriptor parent;  // invalid where the path has no components
  std::string name;       // in `parent`
  bool isLink = false;    // the name
};

// Works below one descriptor throughout: the directory may be moved or replaced meanwhile.
class LinuxOutputTree final : public OutputTree {
 public:
  explicit LinuxOutputTree(OutputTreePlace place);

  bool makeParentOf(const std::string& relativePath) override;
  bool writeFile(const std::string& relativePath, std::span<const std::byte> bytes,
                 const OutputFileAttributes& attributes) override;
  void removeWithEverything() override;

 private:
  bool makeDirectories(const std::string& relativePath);
  // A file that was not there before, in the place of one that was.
  FileDescriptor createFile(const std::string& relativePath);
  bool writeAll(int descriptor, std::span<const std::byte> bytes);

  const OutputTreePlace place_;
  std::string knownParent_;  // where the last file went
  std::vector<std::byte> block_;
};

}  // namespace quillsift
