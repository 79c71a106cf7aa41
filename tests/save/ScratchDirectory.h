#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

namespace quillsift {

// A directory of its own that goes with the object.
class ScratchDirectory {
 public:
  ScratchDirectory() : path_("/tmp/quillsift-save.XXXXXX") {
    if (::mkdtemp(path_.data()) == nullptr) std::abort();
  }
  ~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void writeFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

inline bool existsAt(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::symlink_status(path, ignored).type() !=
         std::filesystem::file_type::not_found;
}

// Text that hardly compresses, the same for the same length.
inline std::string noise(std::size_t length) {
  std::string bytes(length, '\0');
  unsigned long long state = 0x9E3779B97F4A7C15ULL;
  for (char& byte : bytes) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    byte = static_cast<char>(state >> 32);
  }
  return bytes;
}

}  // namespace quillsift
