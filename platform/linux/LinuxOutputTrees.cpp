#include "platform/linux/LinuxOutputTrees.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Text.h"
#include "platform/linux/DirectoryWalk.h"
#include "platform/linux/LinuxOutputTree.h"

namespace quillsift {

namespace {

// A directory that was reached by "..", by the name that it has where it lies. One without a name
// that can be told is only ever emptied.
void nameByPlace(OutputTreePlace* place) {
  place->parent = openDirectory(place->directory.get(), "..", O_PATH);
  place->name =
      lastPathComponent(linkTarget("/proc/self/fd/" + std::to_string(place->directory.get())));
  struct stat directory, named;
  const bool same =
      ::fstat(place->directory.get(), &directory) == 0 &&
      ::fstatat(place->parent.get(), place->name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
      directory.st_dev == named.st_dev && directory.st_ino == named.st_ino;
  if (!same) place->parent.reset();
}

bool isLink(int directory, const std::string& name) {
  struct stat status {};
  return ::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
         S_ISLNK(status.st_mode);
}

}  // namespace

std::unique_ptr<OutputTree> LinuxOutputTrees::makeDirectory(const std::string& path) {
  if (path.empty()) {
    errno = ENOENT;
    return nullptr;
  }
  OutputTreePlace place;
  place.directory = openDirectory(AT_FDCWD, path.front() == '/' ? "/" : ".", O_PATH);
  for (const std::string& name : pathComponents(path)) {
    if (!place.directory.valid()) return nullptr;
    place.parent = std::move(place.directory);
    place.name = name;
    place.isLink = isLink(place.parent.get(), name);
    place.directory = enterOrMake(place.parent.get(), name, Links::follow);
  }
  if (!place.directory.valid()) return nullptr;
  if (place.name == "..") nameByPlace(&place);
  return std::make_unique<LinuxOutputTree>(std::move(place));
}

}  // namespace quillsift
