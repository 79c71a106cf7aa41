#include "platform/linux/JournalFiles.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/linux/FileReading.h"

namespace quillsift {

namespace {

using Failed = std::function<void(const std::string& path, int code)>;

// Closed ones, the one being written, and those set aside because they were not closed in order.
bool isJournalName(std::string_view name) {
  return name.ends_with(".journal") || name.ends_with(".journal~");
}

std::vector<std::string> sortedEntries(const std::string& directory, const Failed& failed) {
  std::vector<std::string> paths;
  std::error_code error;
  std::filesystem::directory_iterator entry(directory, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error))
    paths.push_back(entry->path());
  const bool isMissing = error == std::errc::no_such_file_or_directory;
  if (error && !isMissing) failed(directory, error.value());
  std::sort(paths.begin(), paths.end());
  return paths;
}

class Opener {
 public:
  explicit Opener(const Failed& failed) : failed_(failed) {}

  void openIn(const std::string& directory, bool andBelow) {
    for (const std::string& path : sortedEntries(directory, failed_)) {
      std::error_code error;
      if (andBelow && std::filesystem::is_directory(path, error)) {
        openIn(path, false);
      } else if (isJournalName(path)) {
        open(path);
      }
    }
  }
  std::vector<JournalFile> take() { return std::move(files_); }

 private:
  void open(const std::string& path) {
    FileDescriptor descriptor = openForReading(path);
    struct stat status {};
    if (!descriptor.valid() || ::fstat(descriptor.get(), &status) != 0) {
      failed_(path, errno);
    } else if (!S_ISREG(status.st_mode)) {
      failed_(path, EINVAL);
    } else {
      files_.push_back({path, std::move(descriptor)});
    }
  }

  const Failed& failed_;
  std::vector<JournalFile> files_;
};

}  // namespace

std::vector<JournalFile> openJournalFiles(const std::vector<std::string>& directories,
                                          const Failed& failed) {
  Opener opener(failed);
  for (const std::string& directory : directories)
    opener.openIn(directory, true);
  return opener.take();
}

}  // namespace quillsift
