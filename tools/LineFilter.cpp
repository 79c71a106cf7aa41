#include "tools/LineFilter.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "tools/Files.h"
#include "tools/SecretMask.h"

namespace quillsift::tools {

namespace {

bool isWordCharacter(char character) {
  return (character >= 'a' && character <= 'z') || (character >= '0' && character <= '9');
}

// `words` in lower case, `line` as well.
bool hasWords(std::string_view line, std::string_view words) {
  for (std::size_t at = line.find(words); at != std::string_view::npos;
       at = line.find(words, at + 1)) {
    const std::size_t end = at + words.size();
    const bool begins = at == 0 || !isWordCharacter(line[at - 1]);
    const bool ends = end == line.size() || !isWordCharacter(line[end]);
    if (begins && ends) return true;
  }
  return false;
}

}  // namespace

LineSplitter::LineSplitter(LineFilter filter, std::function<void(std::string_view)> sink)
    : filter_(std::move(filter)), sink_(std::move(sink)) {}

void LineSplitter::feed(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t newline = bytes.find('\n');
    const std::size_t end = std::min(newline, bytes.size());
    const std::size_t taken = std::min(end, kLongestLine - line_.size());
    line_ += bytes.substr(0, taken);
    bytes.remove_prefix(taken);
    if (taken == end && newline != std::string_view::npos) {
      bytes.remove_prefix(1);
      emit();
    } else if (line_.size() == kLongestLine) {
      emit();
    }
  }
}

void LineSplitter::finish() {
  if (!line_.empty()) emit();
}

void LineSplitter::emit() {
  if (filter_(line_)) sink_(line_);
  line_.clear();
}

LineFilter dropLinesWith(std::initializer_list<std::string_view> words) {
  std::vector<std::string> lowered;
  for (const std::string_view word : words)
    lowered.push_back(lowerCased(word));
  return [lowered](std::string& line) {
    const std::string lower = lowerCased(line);
    return std::none_of(lowered.begin(), lowered.end(),
                        [&](const std::string& word) { return hasWords(lower, word); });
  };
}

bool saysNotPermitted(std::string_view line) {
  // As tools print them, with either case of the first letter.
  for (const std::string_view words :
       {"ermission denied", "not permitted", "ccess denied", "enough privilege", "must be root",
        "must be super-user", "equires root", "nsufficient permission"}) {
    if (line.find(words) != std::string_view::npos) return true;
  }
  return false;
}

LineFilter maskSecrets() {
  return [](std::string& line) {
    line = withSecretsMasked(line);
    return true;
  };
}

LineFilter both(LineFilter first, LineFilter second) {
  return [first = std::move(first), second = std::move(second)](std::string& line) {
    return first(line) && second(line);
  };
}

}  // namespace quillsift::tools
