#pragma once

#include <string>
#include <vector>

namespace quillsift {

struct CommandResult {
  int status = -1;     // the exit status
  std::string output;  // both streams
};

// Runs a shell command line in a UTF-8 locale.
CommandResult runCommand(const std::string& command);

// The names that follow are on the search path.
bool commandsAreThere(const std::vector<std::string>& names);

// `text` as one word of a command line.
std::string shellWord(const std::string& text);

// A member as Python's tarfile sees it: the line of list_archive.py, and the data.
struct ListedMember {
  std::string line;
  std::string data;
};

// Fails the test when the archive cannot be read to its end.
std::vector<ListedMember> membersOf(const std::string& archive);
std::vector<std::string> memberNamesOf(const std::string& archive);

}  // namespace quillsift
