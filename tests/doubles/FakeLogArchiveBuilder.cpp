#include "tests/doubles/FakeLogArchiveBuilder.h"

namespace quillsift {

int FakeLogArchiveBuilder::build(const std::map<std::string, LogKindLimits>& limits,
                                 const Warning& warning, const Member& member) {
  limitsAsked.push_back(limits);
  for (const std::string& text : warnings)
    warning(text.c_str());
  for (const ScriptedMember& scripted : members) {
    memberResults.push_back(member(scripted.descriptor, scripted.path.c_str()));
    if (memberResults.back() != 0) return memberResults.back();
  }
  return error;
}

}  // namespace quillsift
