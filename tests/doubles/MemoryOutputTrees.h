#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/Mutex.h"
#include "platform/OutputTrees.h"

namespace quillsift {

// Trees that exist in memory alone, with a record of the calls; fails on demand. Any thread.
class MemoryOutputTrees : public OutputTrees {
 public:
  struct File {
    std::string content;
    OutputFileAttributes attributes;
  };
  struct Call {
    std::string operation;  // the member's name
    std::string path;       // absolute
    bool operator==(const Call&) const = default;
  };

  MemoryOutputTrees();

  // The operation fails with this errno value and does nothing, for every path or for one; 0 takes
  // that back.
  void fail(const std::string& operation, int code);
  void fail(const std::string& operation, const std::string& path, int code);
  // Runs before each call, outside all locks. May throw.
  void onCall(std::function<void(const Call& call)> hook);
  void addFile(const std::string& path, std::string content);

  std::vector<Call> calls() const;
  std::map<std::string, File> files() const;
  std::set<std::string> directories() const;  // made here

  std::unique_ptr<OutputTree> makeDirectory(const std::string& path) override;

 private:
  class Tree;
  struct State;
  const std::shared_ptr<State> state_;
};

}  // namespace quillsift
