#include "platform/linux/ProcessExecutable.h"

#include <unistd.h>

#include <array>
#include <string_view>

#include "platform/Text.h"

namespace quillsift {

namespace {

// The kernel forms these paths in one page.
constexpr std::size_t kLongestLink = 4096;
constexpr std::string_view kDeletedMark = " (deleted)";

}  // namespace

std::string executableOf(pid_t process) {
  // "self" is right even where /proc belongs to another process namespace.
  return executableInProcessDirectory("/proc/" +
                                      (process == ::getpid() ? "self" : std::to_string(process)));
}

std::string executableInProcessDirectory(const std::string& directory) {
  std::array<char, kLongestLink + 1> target{};
  const ssize_t length = ::readlink((directory + "/exe").c_str(), target.data(), target.size());
  if (length <= 0) return "";
  std::string_view path(target.data(), static_cast<std::size_t>(length));
  if (path.ends_with(kDeletedMark)) path.remove_suffix(kDeletedMark.size());
  return std::string(path);
}

std::string fileBesideExecutable(const std::string& relativePath) {
  const std::string executable = executableOf(::getpid());
  const std::size_t slash = executable.rfind('/');
  if (slash == std::string::npos) return "";
  return joinedPath(executable.substr(0, slash + 1), relativePath);
}

}  // namespace quillsift
