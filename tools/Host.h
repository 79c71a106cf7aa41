#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/PlatformTree.h"

namespace quillsift::tools {

// Where this machine's files and programs are. The recipes name them by their usual absolute paths
// and ask here what to open, so that a test can lay out a machine in a scratch directory.
class Host {
 public:
  // The machine itself. `treeDirectory` is the platform tree this program was started from, empty
  // when there is none.
  explicit Host(std::string treeDirectory);
  // A machine below `root`, whose programs are looked for in `programDirectories`.
  Host(std::string root, std::vector<std::string> programDirectories, std::string treeDirectory);

  // "/proc/cmdline" as it is to be opened.
  std::string path(std::string_view absolutePath) const;

  // A path that the collection plan names, as the daemon finds it: the tree's if the tree has it,
  // else the machine's. None when the tree says that this system has no such thing.
  std::optional<std::string> resolved(std::string_view planPath) const;

  // The platform tree; empty when there is none.
  const std::string& tree() const { return tree_.directory(); }

  // The program of that name, from fixed directories: the caller's PATH is never asked, and the
  // platform tree's own programs are never found.
  std::optional<std::string> program(std::string_view name) const;

 private:
  std::string root_;
  std::vector<std::string> programDirectories_;
  PlatformTree tree_;
};

// The platform tree a program was started from: `startedPath` (what the kernel was asked to
// execute) less the plan's path at its end; else the directory "platform" beside `executable`,
// which is the file itself. Empty when neither is a directory that only root or this user can
// write to.
std::string platformTreeOf(std::string_view startedPath, std::string_view planPath,
                           std::string_view executable);

}  // namespace quillsift::tools
