#include "host/URLParts.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <system_error>

namespace quillsift {

namespace {

bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

std::string_view withoutScheme(std::string_view url) {
  const std::size_t colon = url.find(':');
  if (colon == url.npos || !isLetter(url.front())) return url;
  const std::string_view scheme = url.substr(0, colon);
  const bool fits = std::all_of(scheme.begin(), scheme.end(), [](char c) {
    return isLetter(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
  });
  return fits ? url.substr(colon + 1) : url;
}

// Of user@host:port.
std::string_view hostOf(std::string_view authority) {
  const std::size_t user = authority.rfind('@');
  if (user != authority.npos) authority.remove_prefix(user + 1);
  if (authority.starts_with('[')) return authority.substr(0, authority.find(']') + 1);
  return authority.substr(0, authority.find(':'));
}

std::optional<std::string> decoded(std::string_view text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      result += text[i];
      continue;
    }
    const std::string_view digits = text.substr(i + 1, 2);
    std::uint8_t byte = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
    if (error != std::errc() || end != digits.data() + 2 || byte == 0) return std::nullopt;
    result += static_cast<char>(byte);
    i += 2;
  }
  return result;
}

}  // namespace

std::optional<URLParts> splitURL(std::string_view url) {
  if (url.empty() || url.find('\0') != url.npos) return std::nullopt;
  std::string_view rest = withoutScheme(url.substr(0, url.find_first_of("?#")));
  URLParts parts;
  if (rest.starts_with("//")) {
    rest.remove_prefix(2);
    const std::string_view authority = rest.substr(0, rest.find('/'));
    parts.host = hostOf(authority);
    rest.remove_prefix(authority.size());
  }
  auto path = decoded(rest);
  if (!path) return std::nullopt;
  while (path->ends_with('/'))
    path->pop_back();
  parts.path = std::move(*path);
  return parts;
}

}  // namespace quillsift
