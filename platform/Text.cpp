#include "platform/Text.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <system_error>

#include "platform/QSDate.h"
#include "platform/QSError.h"

namespace quillsift {

namespace {

std::string_view withoutTrailingSlashes(std::string_view path) {
  while (path.size() > 1 && path.back() == '/')
    path.remove_suffix(1);
  return path;
}

// Length of the valid UTF-8 sequence at the start of `text`, 0 if there is none there.
std::size_t sequenceLength(std::string_view text) {
  const auto at = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  const std::uint8_t lead = at(0);
  if (lead < 0x80) return 1;
  std::size_t length = 0;
  if (lead >= 0xC2 && lead <= 0xDF) length = 2;
  if (lead >= 0xE0 && lead <= 0xEF) length = 3;
  if (lead >= 0xF0 && lead <= 0xF4) length = 4;
  if (length == 0 || text.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((at(i) & 0xC0) != 0x80) return 0;
  }
  // Overlong forms, surrogates and numbers past U+10FFFF.
  if ((lead == 0xE0 && at(1) < 0xA0) || (lead == 0xED && at(1) > 0x9F)) return 0;
  if ((lead == 0xF0 && at(1) < 0x90) || (lead == 0xF4 && at(1) > 0x8F)) return 0;
  return length;
}

}  // namespace

std::string orNull(const std::optional<std::string>& text) {
  return text ? *text : kNullText;
}

std::string orNull(const QSError& error) {
  return error.description();
}

std::string orNull(const std::optional<QSDate>& date) {
  return date ? date->description() : kNullText;
}

std::string formatted(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  std::string text;
  if (length > 0) {
    text.resize(static_cast<std::size_t>(length));
    std::vsnprintf(text.data(), text.size() + 1, format, again);
  }
  va_end(again);
  return text;
}

std::string systemErrorText(int code) {
  return std::generic_category().message(code);
}

std::string validUTF8(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = sequenceLength(text);
    if (length == 0) {
      result += "\xEF\xBF\xBD";
      text.remove_prefix(1);
    } else {
      result += text.substr(0, length);
      text.remove_prefix(length);
    }
  }
  return result;
}

std::string fileNameText(std::string_view name) {
  constexpr std::size_t kLongestName = 255;
  std::string text = validUTF8(name);
  if (text.size() <= kLongestName) return text;
  std::size_t length = kLongestName;
  const auto continues = [&](std::size_t at) {
    return (static_cast<unsigned char>(text[at]) & 0xC0U) == 0x80U;
  };
  while (continues(length))
    --length;
  text.resize(length);
  return text;
}

std::string lastPathComponent(std::string_view path) {
  path = withoutTrailingSlashes(path);
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos || path.size() == 1) return std::string(path);
  return std::string(path.substr(slash + 1));
}

bool hasParentComponent(std::string_view path) {
  while (true) {
    const std::size_t slash = path.find('/');
    if (path.substr(0, slash) == "..") return true;
    if (slash == std::string_view::npos) return false;
    path.remove_prefix(slash + 1);
  }
}

std::string pathExtension(std::string_view path) {
  const std::string name = lastPathComponent(path);
  const std::size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0) return "";
  return name.substr(dot + 1);
}

std::string joinedPath(std::string_view base, std::string_view relative) {
  base = withoutTrailingSlashes(base);
  while (!relative.empty() && relative.front() == '/')
    relative.remove_prefix(1);
  std::string path(base);
  if (path.empty() || path.back() != '/') path += '/';
  path += relative;
  return path;
}

}  // namespace quillsift
