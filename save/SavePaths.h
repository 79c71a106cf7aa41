#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quillsift {

// The two names of an archive: it is written under `temporary` and renamed when it is complete.
struct SavePaths {
  // Trailing slashes of `destination` are dropped. A path of slashes only stays "/".
  explicit SavePaths(std::string_view destination);

  std::string final;
  std::string temporary;  // `final` with ".inprogress" behind it, whatever extension it has
};

// Where a job's relative path lies under `directory`. Leading slashes do not lead out of it; a path
// with a ".." component has no place there.
std::optional<std::string> pathInside(std::string_view directory, std::string_view relativePath);

}  // namespace quillsift
