#include "client/Destination.h"

#include <cerrno>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/Text.h"

namespace quillsift {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kArchiveExtension = ".tgz";

enum class Kind { missing, directory, regular, other, unknown };

Kind kindOf(const std::string& path, std::error_code* reason) {
  const fs::file_status status = fs::status(path, *reason);
  switch (status.type()) {
    case fs::file_type::not_found:
      *reason = std::make_error_code(std::errc::no_such_file_or_directory);
      return Kind::missing;
    case fs::file_type::directory:
      return Kind::directory;
    case fs::file_type::regular:
      return Kind::regular;
    case fs::file_type::none:
    case fs::file_type::unknown:
      return Kind::unknown;
    default:
      return Kind::other;
  }
}

// `path`, which is absolute, without empty and "." components. ".." stays: behind a link it leads
// elsewhere than to the component before it.
std::string tidied(std::string_view path) {
  std::string result;
  while (!path.empty()) {
    path.remove_prefix(1);
    const std::string_view component = path.substr(0, path.find('/'));
    path.remove_prefix(component.size());
    if (component.empty() || component == ".") continue;
    result += '/';
    result += component;
  }
  return result.empty() ? "/" : result;
}

std::string parentOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::optional<std::string> absolute(const std::string& path, std::string* problem) {
  if (path.starts_with('/')) return path;
  std::error_code reason;
  const std::string directory = fs::current_path(reason).string();
  // The kernel marks a directory outside our root.
  if (!reason && !directory.starts_with('/')) {
    reason = std::make_error_code(std::errc::no_such_file_or_directory);
  }
  if (!reason) return joinedPath(directory, path);
  *problem = "cannot tell the current directory: " + reason.message();
  return std::nullopt;
}

// Empty when an archive can be put at `path`, as far as can be seen.
std::string archiveProblem(const std::string& path, const std::string& typed) {
  if (typed.ends_with('/')) return typed + " is no directory";
  std::error_code reason;
  // The finished archive takes the place of what is there, even of a device.
  if (kindOf(path, &reason) == Kind::other) return path + " is no regular file";
  const std::string parent = parentOf(path);
  switch (kindOf(parent, &reason)) {
    case Kind::directory:
    case Kind::unknown:
      return "";
    case Kind::missing:
      return "cannot save into " + parent + ": " + reason.message();
    case Kind::regular:
    case Kind::other:
      return parent + " is no directory";
  }
  return "";
}

std::string directoryProblem(const std::string& path) {
  std::error_code reason;
  switch (kindOf(path, &reason)) {
    case Kind::missing:
    case Kind::unknown:
      return "";
    case Kind::regular:
    case Kind::other:
      return path + " is no directory";
    case Kind::directory:
      break;
  }
  const bool empty = fs::is_empty(path, reason);
  if (reason || empty) return "";
  return path + " is not empty: a save that fails would delete it with all it holds";
}

}  // namespace

Destination::Destination(std::string path, bool named, SaveForm form, bool limited)
    : path_(std::move(path)), named_(named), form_(form), limited_(limited) {}

std::optional<Destination> Destination::resolve(const std::optional<std::string>& given,
                                                SaveForm form, bool limited, std::string* problem) {
  const std::string typed = given.value_or(".");
  if (typed.empty()) {
    *problem = "the destination is empty";
    return std::nullopt;
  }
  const auto absolutePath = absolute(typed, problem);
  if (!absolutePath) return std::nullopt;
  if (validUTF8(*absolutePath) != *absolutePath) {
    *problem = "the daemon takes only destinations in UTF-8, which " + *absolutePath + " is not";
    return std::nullopt;
  }

  const std::string path = tidied(*absolutePath);
  std::error_code ignored;
  const bool inside =
      !given || (form == SaveForm::archive && kindOf(path, &ignored) == Kind::directory);
  if (inside) return Destination(path, false, form, limited);

  *problem = form == SaveForm::archive ? archiveProblem(path, typed) : directoryProblem(path);
  if (!problem->empty()) return std::nullopt;
  return Destination(path, true, form, limited);
}

std::string Destination::path(const ArchiveNamer& name) const {
  if (named_) return path_;
  std::string leaf = name(limited_);
  if (form_ == SaveForm::directory && leaf.ends_with(kArchiveExtension)) {
    leaf.resize(leaf.size() - kArchiveExtension.size());
  }
  return joinedPath(path_, leaf);
}

}  // namespace quillsift
