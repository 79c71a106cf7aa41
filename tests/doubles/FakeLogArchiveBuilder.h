#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/LogArchiveBuilder.h"

namespace quillsift {

// Hands over the members that the test lists. Their descriptors are mere numbers: pair it with
// MemoryFileSystem::addDescriptor. Set up before use; one thread at a time.
class FakeLogArchiveBuilder : public LogArchiveBuilder {
 public:
  struct ScriptedMember {
    int descriptor;
    std::string path;
  };

  std::vector<std::string> warnings;  // given first
  std::vector<ScriptedMember> members;
  int error = 0;  // what build returns once all members are handed over

  std::vector<std::map<std::string, LogKindLimits>> limitsAsked;
  std::vector<int> memberResults;

  int build(const std::map<std::string, LogKindLimits>& limits, const Warning& warning,
            const Member& member) override;
};

}  // namespace quillsift
