#include "tools/Host.h"

#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "tools/Files.h"

namespace quillsift::tools {

namespace {

bool isTree(const std::string& directory) {
  return !PlatformTree(directory).directory().empty();
}

}  // namespace

Host::Host(std::string treeDirectory)
    : Host("", {"/usr/sbin", "/usr/bin", "/sbin", "/bin"}, std::move(treeDirectory)) {}

Host::Host(std::string root, std::vector<std::string> programDirectories, std::string treeDirectory)
    : root_(std::move(root)),
      programDirectories_(std::move(programDirectories)),
      tree_(std::move(treeDirectory)) {}

std::string Host::path(std::string_view absolutePath) const {
  return root_ + std::string(absolutePath);
}

std::optional<std::string> Host::resolved(std::string_view planPath) const {
  const std::string wanted(planPath);
  const auto found = tree_.resolve(wanted);
  return found == wanted ? path(planPath) : found;
}

std::optional<std::string> Host::program(std::string_view name) const {
  for (const std::string& directory : programDirectories_) {
    std::string candidate = pathIn(directory, name);
    struct stat status {};
    if (::stat(candidate.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
        ::access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
  }
  return std::nullopt;
}

std::string platformTreeOf(std::string_view startedPath, std::string_view planPath,
                           std::string_view executable) {
  if (startedPath.size() > planPath.size() && startedPath.ends_with(planPath)) {
    std::string tree(startedPath.substr(0, startedPath.size() - planPath.size()));
    if (isTree(tree)) return tree;
  }
  const std::size_t slash = executable.rfind('/');
  if (slash != std::string_view::npos) {
    std::string tree = std::string(executable.substr(0, slash)) + "/platform";
    if (isTree(tree)) return tree;
  }
  return "";
}

}  // namespace quillsift::tools
