// Prints 128 MiB that do not compress well, the same at every run.

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <vector>

int main() {
  std::vector<char> block(1 << 20);
  std::uint64_t state = 88172645463325252u;
  for (int i = 0; i < 128; ++i) {
    for (char& c : block) {
      state ^= state << 13;
      state ^= state >> 7;
      state ^= state << 17;
      c = static_cast<char>('a' + state % 23);
    }
    for (std::size_t done = 0; done < block.size();) {
      const ssize_t count = ::write(1, block.data() + done, block.size() - done);
      if (count <= 0) return 1;
      done += static_cast<std::size_t>(count);
    }
  }
}
