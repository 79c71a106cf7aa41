#include "save/SavePaths.h"

#include "platform/Text.h"

namespace quillsift {

namespace {

constexpr std::string_view kTemporaryExtension = ".inprogress";

}  // namespace

SavePaths::SavePaths(std::string_view destination) {
  while (destination.size() > 1 && destination.back() == '/')
    destination.remove_suffix(1);
  final = destination;
  temporary = final;
  temporary += kTemporaryExtension;
}

std::optional<std::string> pathInside(std::string_view directory, std::string_view relativePath) {
  if (hasParentComponent(relativePath)) return std::nullopt;
  return joinedPath(directory, relativePath);
}

}  // namespace quillsift
