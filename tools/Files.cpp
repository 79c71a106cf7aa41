#include "tools/Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>

#include "tools/Descriptor.h"

namespace quillsift::tools {

namespace {

constexpr std::string_view kBlanks = " \t\r\n";

std::optional<std::string> readToLimit(int descriptor, std::size_t limit) {
  std::string bytes;
  while (bytes.size() < limit) {
    const std::size_t before = bytes.size();
    const std::size_t wanted = std::min(limit - before, std::max<std::size_t>(4096, before));
    bytes.resize(before + wanted);
    const ssize_t count = ::read(descriptor, bytes.data() + before, wanted);
    const int error = errno;
    bytes.resize(before + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    if (count == 0) break;
    if (count < 0 && error != EINTR) {
      errno = error;
      return std::nullopt;
    }
  }
  return bytes;
}

}  // namespace

std::optional<std::string> readFileAt(int directory, const char* name, std::size_t limit) {
  const Descriptor file(::openat(directory, name, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file.valid()) return std::nullopt;
  auto bytes = readToLimit(file.get(), limit);
  return bytes;
}

std::optional<std::string> readFile(const std::string& path, std::size_t limit) {
  return readFileAt(AT_FDCWD, path.c_str(), limit);
}

std::optional<std::string> readLine(const std::string& path) {
  auto text = readFile(path);
  if (text) text->resize(std::min(text->find('\n'), text->size()));
  return text;
}

std::optional<Names> namesIn(const std::string& directory) {
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(::opendir(directory.c_str()), ::closedir);
  if (!stream) return std::nullopt;
  Names names;
  while (const dirent* entry = ::readdir(stream.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string pathIn(std::string_view directory, std::string_view name) {
  std::string path;
  path.reserve(directory.size() + 1 + name.size());
  path += directory;
  path += '/';
  path += name;
  return path;
}

bool exists(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0;
}

bool isDirectory(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::optional<std::string> linkNameAt(int directory, const char* name) {
  char target[PATH_MAX];
  const ssize_t length = ::readlinkat(directory, name, target, sizeof target);
  if (length < 0) return std::nullopt;
  const std::string_view text(target, static_cast<std::size_t>(length));
  const std::size_t slash = text.rfind('/');
  return std::string(slash == std::string_view::npos ? text : text.substr(slash + 1));
}

std::string_view withoutFinalNewlines(std::string_view text) {
  while (text.ends_with('\n'))
    text.remove_suffix(1);
  return text;
}

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::vector<std::string_view> linesOf(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    lines.push_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

std::string lowerCased(std::string_view text) {
  std::string lower(text);
  for (char& letter : lower) {
    if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
  }
  return lower;
}

}  // namespace quillsift::tools
