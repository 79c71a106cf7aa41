#pragma once

#include <sys/types.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "tools/Host.h"

namespace quillsift::tools {

struct RunResult {
  int exitCode;  // 128 + the signal when it was ended by one
  std::string output;
};

// A machine laid out in a directory of its own: its files below a root, its programs as small shell
// scripts, and a platform tree. Gone when the test ends.
class ScratchMachine {
 public:
  ScratchMachine();
  ~ScratchMachine();
  ScratchMachine(const ScratchMachine&) = delete;
  ScratchMachine& operator=(const ScratchMachine&) = delete;

  // A file of the machine, with the directories above it.
  void file(const std::string& path, std::string_view content, mode_t mode = 0644);
  void directory(const std::string& path);
  void link(const std::string& path, const std::string& target);
  // A host program: what follows the first line of a shell script.
  void program(const std::string& name, const std::string& script);
  // A file or a link of the platform tree.
  void treeFile(const std::string& path, std::string_view content);
  void treeLink(const std::string& path, const std::string& target);

  std::string root() const { return directory_ + "/root"; }
  std::string tree() const { return directory_ + "/tree"; }
  std::string programs() const { return directory_ + "/programs"; }
  Host host() const { return Host(root(), {programs()}, tree()); }

  // Runs a recipe of the list in a process of its own and waits for its end. Standard error joins
  // the output.
  RunResult run(const std::string& planPath, const std::vector<std::string>& arguments) const;
  // From here on recipes run as a user who may read only what everybody may.
  void becomeOrdinaryUser() { ordinaryUser_ = true; }
  // Only starts it; `output` is the reading side of what it prints to.
  pid_t start(const std::string& planPath, const std::vector<std::string>& arguments,
              int* output) const;

 private:
  std::string directory_;
  bool ordinaryUser_ = false;
};

// A pipe to print into, for output that fits it.
class OutputPipe {
 public:
  OutputPipe();
  int writing() const { return ends_[1]; }
  // All that was written; nothing can be written behind it.
  std::string printed();

 private:
  int ends_[2];
};

// All that comes from a descriptor until its end, closing it. Fails the test after two silent
// minutes.
std::string readToEnd(int descriptor);
int exitCodeOf(pid_t process);

}  // namespace quillsift::tools
