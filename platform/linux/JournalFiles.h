#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/FileDescriptor.h"

namespace quillsift {

// A journal file, open for reading, so that a rotation that renames it changes nothing for us.
struct JournalFile {
  std::string path;
  FileDescriptor descriptor;
};

// The journal files in the directories and in those right below them, where each machine has its
// own, in the order of their names. What cannot be opened or listed is told to `failed` with an
// errno value; a directory that does not exist is not.
std::vector<JournalFile> openJournalFiles(
    const std::vector<std::string>& directories,
    const std::function<void(const std::string& path, int code)>& failed);

}  // namespace quillsift
