#include "platform/linux/TemporaryDirectory.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>

#include "platform/Text.h"

namespace quillsift {

namespace {

constexpr const char* kLink = "/private/tmp";

// Where the link leads; empty for what is no link to an absolute path.
std::string targetOf(const std::string& link) {
  std::array<char, PATH_MAX> target{};
  const ssize_t length = ::readlink(link.c_str(), target.data(), target.size() - 1);
  if (length <= 0 || target[0] != '/') return "";
  return {target.data(), static_cast<std::size_t>(length)};
}

}  // namespace

std::string makeTemporaryDirectory(const PlatformTree& tree) {
  const std::string link = tree.directory() + kLink;
  struct stat status {};
  if (tree.directory().empty() || ::stat(link.c_str(), &status) == 0) return "";
  const std::string directory = targetOf(link);
  if (directory.empty()) return "";
  for (std::size_t slash = directory.find('/', 1); slash != std::string::npos;
       slash = directory.find('/', slash + 1))
    (void)::mkdir(directory.substr(0, slash).c_str(),
                  0755);  // there already, or the last one fails
  if (::mkdir(directory.c_str(), 0700) == 0) return "";
  return "Cannot make the directory " + directory + ": " + systemErrorText(errno) + ".";
}

}  // namespace quillsift
