#include "platform/linux/DirectoryRemoval.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/linux/DirectoryStream.h"
#include "platform/linux/DirectoryWalk.h"

namespace quillsift {

namespace {

// Directories that are held open at a time: the lowest ones.
constexpr std::size_t kMostOpen = 32;

std::vector<std::string> entriesOf(int directory) {
  std::vector<std::string> names;
  FileDescriptor copy(::fcntl(directory, F_DUPFD_CLOEXEC, 0));
  const DirectoryStream stream(copy.valid() ? ::fdopendir(copy.get()) : nullptr);
  if (!stream) return names;
  (void)copy.release();
  while (const dirent* entry = ::readdir(stream.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  return names;
}

// A directory that is being emptied, and what is left in it.
class Level {
 public:
  explicit Level(FileDescriptor opened)
      : directory_(std::move(opened)), names_(entriesOf(directory_.get())) {
    (void)::fstat(directory_.get(), &status_);
  }

  int directory() const { return directory_.get(); }
  std::vector<std::string>& names() { return names_; }

  void close() { directory_.reset(); }
  // Opens it again as what lies above `below`. False if that has been moved elsewhere.
  bool reopenFrom(const Level& below) {
    if (directory_.valid()) return true;
    directory_ = openDirectory(below.directory(), "..", O_PATH);
    struct stat found {};
    return directory_.valid() && ::fstat(directory_.get(), &found) == 0 &&
           found.st_dev == status_.st_dev && found.st_ino == status_.st_ino;
  }

 private:
  FileDescriptor directory_;
  struct stat status_ {};
  std::vector<std::string> names_;
};

}  // namespace

// Not by recursion: who made the tree decides how deep it is.
void emptyDirectory(FileDescriptor directory) {
  std::vector<Level> levels;
  levels.emplace_back(std::move(directory));
  while (true) {
    Level& current = levels.back();
    if (current.names().empty()) {
      if (levels.size() == 1) return;
      Level& above = levels[levels.size() - 2];
      if (!above.reopenFrom(current)) return;
      ::unlinkat(above.directory(), above.names().back().c_str(), AT_REMOVEDIR);
      above.names().pop_back();
      levels.pop_back();
      continue;
    }
    const std::string& name = current.names().back();
    if (::unlinkat(current.directory(), name.c_str(), 0) != 0) {
      FileDescriptor below = openInside(current.directory(), name, O_RDONLY | O_DIRECTORY, 0,
                                        RESOLVE_NO_XDEV);  // other volumes stay
      if (below.valid()) {
        if (levels.size() >= kMostOpen) levels[levels.size() - kMostOpen].close();
        levels.emplace_back(std::move(below));
        continue;
      }
    }
    current.names().pop_back();
  }
}

}  // namespace quillsift
