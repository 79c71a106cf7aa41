#include "tools/Host.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <utility>

#include "tools/Files.h"

namespace quillsift::tools {

namespace {

bool isNullDevice(const struct stat& status) {
  return S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3);
}

bool isTrustedTree(const std::string& directory) {
  struct stat status {};
  if (::stat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return false;
  const bool ours = status.st_uid == 0 || status.st_uid == ::geteuid();
  return ours && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

}  // namespace

Host::Host(std::string treeDirectory)
    : Host("", {"/usr/sbin", "/usr/bin", "/sbin", "/bin"}, std::move(treeDirectory)) {}

Host::Host(std::string root, std::vector<std::string> programDirectories, std::string treeDirectory)
    : root_(std::move(root)),
      programDirectories_(std::move(programDirectories)),
      treeDirectory_(std::move(treeDirectory)) {}

std::string Host::path(std::string_view absolutePath) const {
  return root_ + std::string(absolutePath);
}

std::optional<std::string> Host::resolved(std::string_view planPath) const {
  if (!treeDirectory_.empty()) {
    const std::string inTree = treeDirectory_ + std::string(planPath);
    struct stat status {};
    if (::stat(inTree.c_str(), &status) == 0) {
      if (isNullDevice(status)) return std::nullopt;
      return inTree;
    }
  }
  return path(planPath);
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
    if (isTrustedTree(tree)) return tree;
  }
  const std::size_t slash = executable.rfind('/');
  if (slash != std::string_view::npos) {
    std::string tree = std::string(executable.substr(0, slash)) + "/platform";
    if (isTrustedTree(tree)) return tree;
  }
  return "";
}

}  // namespace quillsift::tools
