#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quillsift {

struct QSError;
struct QSDate;

// How an absent object prints, everywhere: in log lines, descriptions and file names.
inline constexpr const char* kNullText = "(null)";

std::string orNull(const std::optional<std::string>& text);
std::string orNull(const QSError& error);
std::string orNull(const std::optional<QSDate>& date);

// printf formatting into a string.
[[gnu::format(printf, 1, 2)]] std::string formatted(const char* format, ...);

// The host's words for an errno value. Any thread.
std::string systemErrorText(int code);

// `text` with every byte that is not part of valid UTF-8 replaced by U+FFFD. For names from disk
// that become text of ours; the path that is opened keeps its bytes.
std::string validUTF8(std::string_view text);
// The same for a single name, cut between characters to what every file system takes (255 bytes):
// the replacement is longer than what it replaces.
std::string fileNameText(std::string_view name);

// The part behind the last "/", trailing slashes ignored: "sh" for "/bin/sh" and "/bin/sh/".
// "/" for a path of slashes only, "" for "".
std::string lastPathComponent(std::string_view path);

// Whether one of the components is "..", so that the path may lead out of where it begins.
bool hasParentComponent(std::string_view path);

// The part of the last component behind its last ".", without it; "" when there is none or when
// the name only begins with one (".profile").
std::string pathExtension(std::string_view path);

// `base` joined with `relative` by exactly one "/", whatever slashes stand there already.
std::string joinedPath(std::string_view base, std::string_view relative);

}  // namespace quillsift
