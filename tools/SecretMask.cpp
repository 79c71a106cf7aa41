#include "tools/SecretMask.h"

#include <algorithm>

#include "tools/Files.h"

namespace quillsift::tools {

namespace {

constexpr std::string_view kBlanks = " \t\n";
constexpr std::string_view kQuotes = "\"'";

bool isNameCharacter(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9') || character == '_' || character == '-' ||
         character == '.';
}

// The name that ends where `text` ends.
std::string_view nameAtEnd(std::string_view text) {
  std::size_t begin = text.size();
  while (begin > 0 && isNameCharacter(text[begin - 1]))
    --begin;
  return text.substr(begin);
}

// Where the value that begins at `begin` ends: at the first blank outside quotes. A quote may open
// anywhere in the value, or before the whole setting ("name=a b").
std::size_t valueEnd(std::string_view text, std::size_t begin, std::size_t nameBegin) {
  char quote = 0;
  if (nameBegin > 0 && kQuotes.find(text[nameBegin - 1]) != std::string_view::npos) {
    quote = text[nameBegin - 1];
  }
  for (std::size_t at = begin; at < text.size(); ++at) {
    const char character = text[at];
    if (quote != 0) {
      if (character == quote) quote = 0;
    } else if (kQuotes.find(character) != std::string_view::npos) {
      quote = character;
    } else if (kBlanks.find(character) != std::string_view::npos) {
      return at;
    }
  }
  return text.size();
}

// Masks what follows the names that tell secrets.
std::string withSettingsMasked(std::string_view text) {
  std::string masked;
  std::size_t copied = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const std::string_view name = nameAtEnd(text.substr(0, at));
    const bool isSetting = text[at] == '=';
    const bool isOption = text[at] == ' ' && name.starts_with("--");
    if (!(isSetting || isOption) || name.empty() || !isSecretName(name)) continue;
    const std::size_t begin = at + 1;
    if (isOption && (begin == text.size() || text[begin] == '-')) continue;
    const std::size_t end = valueEnd(text, begin, at - name.size());
    if (end == begin) continue;
    masked += text.substr(copied, begin - copied);
    masked += kMaskedValue;
    copied = end;
    at = end - 1;
  }
  masked += text.substr(copied);
  return masked;
}

// Masks "user:word@" behind each `introduction`.
std::string withUserPartsMasked(std::string_view text, std::string_view introduction) {
  std::string masked;
  std::size_t copied = 0;
  for (std::size_t at = text.find(introduction); at != std::string_view::npos;
       at = text.find(introduction, at + 1)) {
    const std::size_t begin = at + introduction.size();
    const std::size_t end = std::min(text.find_first_of("/ \t\n\"'", begin), text.size());
    const std::string_view authority = text.substr(begin, end - begin);
    const std::size_t host = authority.rfind('@');
    if (host == std::string_view::npos) continue;
    masked += text.substr(copied, begin - copied);
    masked += kMaskedValue;
    copied = begin + host;
  }
  masked += text.substr(copied);
  return masked;
}

}  // namespace

bool isSecretName(std::string_view name) {
  const std::string lower = lowerCased(name);
  for (const std::string_view ending : {"key", "token", "psk", "pwd"}) {
    if (lower.ends_with(ending)) return true;
  }
  return lower.find("pass") != std::string::npos || lower.find("secret") != std::string::npos ||
         lower.find("credential") != std::string::npos;
}

std::string withSecretsMasked(std::string_view text) {
  // The second is how a root file system on the network is named: "netroot=iscsi:user:word@host".
  return withUserPartsMasked(withUserPartsMasked(withSettingsMasked(text), "://"), "=iscsi:");
}

}  // namespace quillsift::tools
