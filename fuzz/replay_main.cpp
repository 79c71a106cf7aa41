// Runs a fuzzer over the files it is given, and over those of the directories it is given, once
// each. Fails when there is none: an empty corpus tests nothing.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::filesystem::path> filesAt(const std::filesystem::path& place) {
  std::error_code error;
  if (!std::filesystem::is_directory(place, error)) return {place};
  std::vector<std::filesystem::path> files;
  std::filesystem::directory_iterator entry(place, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error))
    files.push_back(entry->path());
  std::sort(files.begin(), files.end());
  return files;
}

bool replay(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(stream), {}};
  if (!stream.good() && !stream.eof()) {
    std::fprintf(stderr, "cannot read %s\n", file.c_str());
    return false;
  }
  // Named first: should it crash, the last line says where.
  std::fprintf(stderr, "%s\n", file.c_str());
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  return true;
}

}  // namespace

int main(int count, char** arguments) {
  std::size_t replayed = 0;
  for (int i = 1; i < count; ++i) {
    for (const std::filesystem::path& file : filesAt(arguments[i])) {
      if (!replay(file)) return 1;
      ++replayed;
    }
  }
  std::fprintf(stderr, "%zu inputs\n", replayed);
  return replayed == 0 ? 1 : 0;
}
