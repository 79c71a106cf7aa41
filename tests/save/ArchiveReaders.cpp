#include "tests/save/ArchiveReaders.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

#include <array>
#include <sstream>

#include "tests/save/ScratchDirectory.h"

namespace quillsift {

CommandResult runCommand(const std::string& command) {
  CommandResult result;
  FILE* const pipe = ::popen(("export LC_ALL=C.UTF-8; { " + command + "; } 2>&1").c_str(), "re");
  if (pipe == nullptr) return result;
  std::array<char, 4096> buffer;
  while (const std::size_t count = ::fread(buffer.data(), 1, buffer.size(), pipe))
    result.output.append(buffer.data(), count);
  const int status = ::pclose(pipe);
  if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  return result;
}

bool commandsAreThere(const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    if (runCommand("command -v " + name).status != 0) return false;
  }
  return true;
}

std::string shellWord(const std::string& text) {
  std::string word = "'";
  for (const char character : text)
    word += character == '\'' ? std::string("'\\''") : std::string(1, character);
  return word + "'";
}

namespace {

std::vector<std::string> linesOf(const std::string& arguments) {
  const CommandResult listed = runCommand("python3 " QUILLSIFT_LIST_ARCHIVE " " + arguments);
  EXPECT_EQ(listed.status, 0) << listed.output;
  std::vector<std::string> lines;
  std::istringstream output(listed.output);
  for (std::string line; std::getline(output, line);)
    lines.push_back(line);
  return lines;
}

}  // namespace

std::vector<ListedMember> membersOf(const std::string& archive) {
  const ScratchDirectory data;
  std::vector<ListedMember> members;
  for (const std::string& line : linesOf(shellWord(archive) + " " + shellWord(data.path())))
    members.push_back({line, contentOf(data / std::to_string(members.size()))});
  return members;
}

std::vector<std::string> memberNamesOf(const std::string& archive) {
  std::vector<std::string> names;
  for (const std::string& line : linesOf(shellWord(archive)))
    names.push_back(line.substr(0, line.find('|')));
  return names;
}

}  // namespace quillsift
