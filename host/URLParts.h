#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quillsift {

// The two parts of a URL that say where something is.
struct URLParts {
  std::string host;  // its bytes unchanged, case included; empty when there is none
  std::string path;  // decoded, without a slash at its end
};

// Splits a URL, or a URL without its scheme. None for nothing, and for a path with an escape that
// is none or stands for a NUL.
std::optional<URLParts> splitURL(std::string_view url);

}  // namespace quillsift
