#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "platform/linux/PlatformTree.h"

namespace quillsift {

// A directory of the test's own, removed with everything in it. Paths are relative to it, whether
// they begin with a "/" or not; parent directories are made as needed.
class ScratchTree {
 public:
  ScratchTree();
  ~ScratchTree();
  ScratchTree(const ScratchTree&) = delete;
  ScratchTree& operator=(const ScratchTree&) = delete;

  const std::string& directory() const { return directory_; }
  std::string at(std::string_view path) const;

  // Each returns the absolute path of what it made.
  std::string write(std::string_view path, std::string_view content) const;
  std::string link(std::string_view path, const std::string& target) const;
  std::string makeDirectory(std::string_view path) const;

  // The directory as a platform tree.
  std::shared_ptr<const PlatformTree> tree() const;

 private:
  std::string directory_;
};

}  // namespace quillsift
