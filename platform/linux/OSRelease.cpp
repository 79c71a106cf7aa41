#include "platform/linux/OSRelease.h"

#include <algorithm>
#include <utility>

#include "platform/QSData.h"
#include "platform/linux/FileReading.h"

namespace quillsift {

namespace {

constexpr std::string_view kBlanks = " \t\r";

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return "";
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// Resolves the quoting of a shell word. None for an open quote.
std::optional<std::string> unquoted(std::string_view word) {
  std::string value;
  char quote = 0;
  for (std::size_t i = 0; i < word.size(); ++i) {
    const char c = word[i];
    if (c == '\\' && quote != '\'' && i + 1 < word.size()) {
      const char next = word[++i];
      const bool keepsBackslash =
          quote == '"' && std::string_view("\"\\$`").find(next) == std::string_view::npos;
      if (keepsBackslash) value += c;
      value += next;
    } else if (quote == 0 ? c == '"' || c == '\'' : c == quote) {
      quote = quote == 0 ? c : '\0';
    } else {
      value += c;
    }
  }
  if (quote != 0) return std::nullopt;
  return value;
}

void parseLine(std::string_view line, OSRelease* assignments) {
  line = trimmed(line);
  const std::size_t equals = line.find('=');
  if (line.starts_with('#') || equals == std::string_view::npos || equals == 0) return;
  std::optional<std::string> value = unquoted(line.substr(equals + 1));
  if (value) (*assignments)[std::string(line.substr(0, equals))] = std::move(*value);
}

}  // namespace

OSRelease parseOSRelease(std::string_view text) {
  OSRelease assignments;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    parseLine(line, &assignments);
    text.remove_prefix(std::min(line.size() + 1, text.size()));
  }
  return assignments;
}

std::optional<OSRelease> readOSRelease(const PlatformTree& tree) {
  const auto path = tree.resolve("/etc/os-release");
  if (!path) return std::nullopt;
  const auto content = readSmallFile(*path);
  if (!content) return std::nullopt;
  return parseOSRelease(content->text());
}

}  // namespace quillsift
