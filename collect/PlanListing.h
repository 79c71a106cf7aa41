#pragma once

#include <string>
#include <vector>

namespace quillsift {

// One source of the plan and the results that it gives, for those who look at the plan without
// running it: the check of the platform tree, and the test of the page that lists the members of an
// archive.
struct PlanFact {
  enum class Kind {
    command,    // `path` is a program; its output is the result
    file,       // `path` is copied
    directory,  // `path` holds the files that are copied or put together
    own,        // the daemon makes it without a path of the plan
  };
  Kind kind;
  // The relative path of the result; what a source adds to it stands in angle brackets.
  std::string member;
  bool sensitive;
  // "always", or the machines that have it: "internal", "vantor-silicon", "other-silicon".
  std::string hosts;
  std::string path;
  std::vector<std::string> arguments;
};

// In the order of the plan.
std::vector<PlanFact> planFacts();

// A line for each, its fields separated by tabs: "command", "file", "directory" or "own"; the
// member; "sensitive" or "public"; the machines; the path; each argument.
std::string planListing();

}  // namespace quillsift
