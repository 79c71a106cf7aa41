#include "platform/linux/PlatformTree.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Text.h"
#include "platform/linux/ProcessExecutable.h"

namespace quillsift {

namespace {

constexpr const char* kDirectoryBesideExecutable = "quillsift/platform";
constexpr std::string_view kNullDevice = "/dev/null";

std::string_view withoutTrailingSlashes(std::string_view path) {
  while (path.ends_with('/'))
    path.remove_suffix(1);
  return path;
}

// What speaks against using the directory; empty for nothing.
std::string distrust(const std::string& directory) {
  struct stat status {};
  if (::stat(directory.c_str(), &status) != 0) {
    return errno == ENOENT || errno == ENOTDIR ? "" : systemErrorText(errno);
  }
  if (!S_ISDIR(status.st_mode)) return "it is not a directory";
  if (status.st_uid != 0 && status.st_uid != ::geteuid()) {
    return formatted("it belongs to user %u", status.st_uid);
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "others can write to it";
  return "";
}

bool isDirectory(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool isNullDevice(const struct stat& status) {
  return S_ISCHR(status.st_mode) && status.st_rdev == ::makedev(1, 3);
}

// Also true where /dev is not there yet and the link therefore dangles.
bool isLinkToNullDevice(const std::string& path) {
  std::array<char, kNullDevice.size() + 1> target{};
  const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
  if (length < 0) return false;
  if (std::string_view(target.data(), static_cast<std::size_t>(length)) == kNullDevice) return true;
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && isNullDevice(status);
}

// One that leads to the null device says something, whether or not /dev is there yet.
bool leadsNowhere(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode) &&
         ::stat(path.c_str(), &status) != 0 && !isLinkToNullDevice(path);
}

// The first link of that name that leads somewhere; `entry` itself where none does.
std::string withFallBack(const std::string& entry) {
  std::string candidate = entry;
  for (unsigned number = 2; leadsNowhere(candidate); ++number)
    candidate = entry + "@" + std::to_string(number);
  struct stat status {};
  return ::lstat(candidate.c_str(), &status) == 0 ? candidate : entry;
}

}  // namespace

PlatformTree::PlatformTree(std::string directory) {
  directory = std::string(withoutTrailingSlashes(directory));
  if (directory.empty()) return;
  const std::string reason = distrust(directory);
  if (!reason.empty()) {
    complaint_ = "Ignoring the platform tree " + directory + ": " + reason + ".";
  } else if (isDirectory(directory)) {
    directory_ = std::move(directory);
  }
}

std::string PlatformTree::directoryBesideExecutable() {
  return fileBesideExecutable(kDirectoryBesideExecutable);
}

std::optional<std::string> PlatformTree::resolve(const std::string& path) const {
  if (path.find('\0') != std::string::npos) return std::nullopt;
  const bool isRoot = withoutTrailingSlashes(path).empty();  // the tree lies over it, not at it
  if (directory_.empty() || isRoot || path.front() != '/' || hasParentComponent(path)) return path;
  const std::string inTree = placeOf(path);
  struct stat status {};
  const bool found = ::stat(inTree.c_str(), &status) == 0;
  if (found && !isNullDevice(status)) return inTree;
  if (hides(path)) return std::nullopt;
  return found ? inTree : path;
}

std::optional<std::string> PlatformTree::resolveForCreation(const std::string& path) const {
  if (path.find('\0') != std::string::npos) return std::nullopt;
  const std::string_view trimmed = withoutTrailingSlashes(path);
  const std::size_t slash = trimmed.rfind('/');
  if (slash == std::string_view::npos || slash == 0 || hasParentComponent(path)) return path;
  const auto parent = resolve(std::string(trimmed.substr(0, slash)));
  if (!parent) return std::nullopt;
  return *parent + path.substr(slash);
}

std::string PlatformTree::placeOf(const std::string& path) const {
  std::string plain = directory_ + path;
  struct stat status {};
  if (::stat(plain.c_str(), &status) == 0) return plain;
  std::string place = directory_;
  for (std::size_t start = 0; start < path.size();) {
    const std::size_t end = std::min(path.find('/', start + 1), path.size());
    place = withFallBack(place + path.substr(start, end - start));
    start = end;
  }
  return place;
}

bool PlatformTree::hides(const std::string& path) const {
  std::string place = directory_;
  for (std::size_t start = 0; start < path.size();) {
    const std::size_t end = std::min(path.find('/', start + 1), path.size());
    place = withFallBack(place + path.substr(start, end - start));
    struct stat status {};
    if (::lstat(place.c_str(), &status) != 0) return false;  // so nothing is below it either
    if (S_ISLNK(status.st_mode) && isLinkToNullDevice(place)) return true;
    start = end;
  }
  return false;
}

}  // namespace quillsift
