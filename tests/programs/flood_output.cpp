// flood_output LENGTH BLOCK: prints LENGTH bytes, BLOCK at a time. The word at offset 8 * n is n.

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

int main(int count, char** arguments) {
  if (count != 3) return 64;
  const std::uint64_t length = std::strtoull(arguments[1], nullptr, 10);
  const std::uint64_t block = std::strtoull(arguments[2], nullptr, 10);
  if (block == 0 || block % 8 != 0) return 64;
  std::vector<std::uint64_t> words(block / 8);
  for (std::uint64_t offset = 0; offset < length; offset += block) {
    for (std::uint64_t index = 0; index < words.size(); ++index)
      words[index] = offset / 8 + index;
    const char* bytes = reinterpret_cast<const char*>(words.data());
    for (std::uint64_t left = std::min(block, length - offset); left != 0;) {
      const ssize_t written = ::write(STDOUT_FILENO, bytes, left);
      if (written < 0) return 74;
      bytes += written;
      left -= static_cast<std::uint64_t>(written);
    }
  }
  return 0;
}
