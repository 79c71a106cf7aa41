#include "platform/linux/FirmwareVariables.h"

#include <sys/stat.h>

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Text.h"
#include "platform/linux/FileReading.h"
#include "platform/linux/OutputWithLimit.h"

namespace quillsift {

namespace {

constexpr const char* kVariableStore = "/sys/firmware/efi/efivars";
constexpr std::size_t kAttributesSize = 4;  // a variable's file begins with its attributes

constexpr const char* kEnvironmentReader = "/usr/bin/fw_printenv";
constexpr const char* kEnvironmentPlace = "/etc/fw_env.config";

class EFIVariables : public RegistryObject {
 public:
  explicit EFIVariables(std::string directory) : directory_(std::move(directory)) {}

  std::optional<RegistryValue> property(const std::string& name) override {
    // No variable has a name that would lead out of the store.
    if (name.empty() || name.find('/') != name.npos || name.find('\0') != name.npos) {
      return std::nullopt;
    }
    const auto content =
        readSmallFile(joinedPath(directory_, name + "-" + kFirmwareVariableVendor));
    if (!content || content->length() < kAttributesSize) return std::nullopt;
    return QSData::copyOf(content->bytes().subspan(kAttributesSize));
  }

 private:
  const std::string directory_;
};

bool isNameForEnvironment(const std::string& name) {
  const auto fits = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-';
  };
  // A leading "-" would be an option.
  return !name.empty() && name.front() != '-' && std::all_of(name.begin(), name.end(), fits);
}

// Of the line "name=value": complaints of the reader stand in lines of their own.
std::optional<std::string> valueInLines(std::string_view lines, const std::string& name) {
  while (!lines.empty()) {
    const std::string_view line = lines.substr(0, lines.find('\n'));
    if (line.starts_with(name + "=")) return std::string(line.substr(name.size() + 1));
    lines.remove_prefix(std::min(line.size() + 1, lines.size()));
  }
  return std::nullopt;
}

class UBootEnvironment : public RegistryObject {
 public:
  UBootEnvironment(ProcessLauncher& launcher, std::chrono::nanoseconds limit)
      : launcher_(launcher), limit_(limit) {}

  std::optional<RegistryValue> property(const std::string& name) override {
    if (!isNameForEnvironment(name)) return std::nullopt;
    const auto reader =
        launcher_.launch({.executablePath = kEnvironmentReader, .arguments = {name}}, nullptr);
    const auto output = reader ? outputWithin(reader, limit_) : std::nullopt;
    auto value = output ? valueInLines(output->text(), name) : std::nullopt;
    if (!value) return std::nullopt;
    return std::move(*value);
  }

 private:
  ProcessLauncher& launcher_;
  const std::chrono::nanoseconds limit_;
};

bool isDirectory(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool isFile(const PlatformTree& tree, const char* path) {
  const auto resolved = tree.resolve(path);
  struct stat status {};
  return resolved && ::stat(resolved->c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

std::unique_ptr<RegistryObject> firmwareVariables(const PlatformTree& tree,
                                                  ProcessLauncher& launcher,
                                                  std::chrono::nanoseconds readerLimit) {
  // The directory is looked up, not the variable: the tree's store hides the machine's.
  const auto store = tree.resolve(kVariableStore);
  if (store && isDirectory(*store)) return std::make_unique<EFIVariables>(*store);
  if (isFile(tree, kEnvironmentReader) && isFile(tree, kEnvironmentPlace)) {
    return std::make_unique<UBootEnvironment>(launcher, readerLimit);
  }
  return nullptr;
}

}  // namespace quillsift
