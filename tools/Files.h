#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillsift::tools {

// Small reads of small files. None ever blocks on a device or a FIFO, follows nothing but links,
// and on failure the return is none with the reason in errno.

inline constexpr std::size_t kSmallFileLimit = std::size_t{256} * 1024;

// The first `limit` bytes of the file.
std::optional<std::string> readFile(const std::string& path, std::size_t limit = kSmallFileLimit);
// The same of `name` in an open directory.
std::optional<std::string> readFileAt(int directory, const char* name, std::size_t limit);

// One line: the first of the file without its newline.
std::optional<std::string> readLine(const std::string& path);

// The names in a directory, sorted byte by byte, without "." and "..".
using Names = std::vector<std::string>;
std::optional<Names> namesIn(const std::string& directory);

// "directory/name"
std::string pathIn(std::string_view directory, std::string_view name);
bool exists(const std::string& path);
bool isDirectory(const std::string& path);

// The last component of what a link says: "pci" for "../../bus/pci".
std::optional<std::string> linkNameAt(int directory, const char* name);

std::string_view withoutFinalNewlines(std::string_view text);
std::string_view trimmed(std::string_view text);
std::vector<std::string_view> linesOf(std::string_view text);
std::string lowerCased(std::string_view text);

}  // namespace quillsift::tools
