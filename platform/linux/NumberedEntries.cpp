#include "platform/linux/NumberedEntries.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <system_error>

namespace quillsift {

std::vector<std::pair<unsigned, std::string>> numberedEntries(const std::string& directory,
                                                              std::string_view prefix,
                                                              std::error_code* out) {
  std::vector<std::pair<unsigned, std::string>> entries;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename();
    if (!name.starts_with(prefix)) continue;
    unsigned number = 0;
    const char* const last = name.data() + name.size();
    const auto parsed = std::from_chars(name.data() + prefix.size(), last, number);
    if (parsed.ec == std::errc() && parsed.ptr == last) {
      entries.emplace_back(number, entry->path());
    }
  }
  if (out != nullptr) *out = error;
  std::ranges::sort(entries);
  return entries;
}

}  // namespace quillsift
