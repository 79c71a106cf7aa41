// /usr/bin/relquery: which system this is.

#include "tools/OperatingSystem.h"

#include <sys/utsname.h>

#include "tools/ExitCodes.h"
#include "tools/Files.h"
#include "tools/Recipe.h"

namespace quillsift::tools {

namespace {

// The value as a shell reads it: quotes taken off, a backslash takes the next character as it is
// (within single quotes it is an ordinary one).
std::string unquoted(std::string_view value) {
  std::string plain;
  char quote = 0;
  for (std::size_t at = 0; at < value.size(); ++at) {
    const char character = value[at];
    if (character == quote) {
      quote = 0;
    } else if (quote == 0 && (character == '"' || character == '\'')) {
      quote = character;
    } else if (character == '\\' && quote != '\'' && at + 1 < value.size()) {
      plain += value[++at];
    } else {
      plain += character;
    }
  }
  return plain;
}

}  // namespace

std::map<std::string, std::string, std::less<>> parsedOperatingSystem(std::string_view text) {
  std::map<std::string, std::string, std::less<>> settings;
  for (const std::string_view line : linesOf(text)) {
    const std::string_view setting = trimmed(line);
    const std::size_t equals = setting.find('=');
    if (setting.starts_with('#') || equals == std::string_view::npos) continue;
    settings[std::string(setting.substr(0, equals))] = unquoted(setting.substr(equals + 1));
  }
  return settings;
}

std::optional<std::map<std::string, std::string, std::less<>>> operatingSystem(const Host& host) {
  for (const char* place : {"/etc/os-release", "/usr/lib/os-release"}) {
    const auto path = host.resolved(place);
    const auto text = path ? readFile(*path) : std::nullopt;
    if (text) return parsedOperatingSystem(*text);
  }
  return std::nullopt;
}

std::string kernelVersion() {
  utsname names{};
  if (::uname(&names) != 0) return "(unknown)";
  return std::string(names.sysname) + " " + names.release + " " + names.machine + " " +
         names.version;
}

int reportRelease(Invocation& invocation) {
  if (!invocation.arguments.empty()) return unknownArguments(invocation);
  const auto system = operatingSystem(invocation.host);
  if (!system) return lineAndExit(invocation, "no os-release", kExitNotHere);
  const auto print = [&](const char* label, std::initializer_list<std::string_view> keys) {
    for (const std::string_view key : keys) {
      const auto setting = system->find(key);
      if (setting == system->end() || setting->second.empty()) continue;
      invocation.output.print("%-16s%s\n", label, setting->second.c_str());
      return;
    }
    invocation.output.print("%-16s(null)\n", label);
  };
  print("ProductName:", {"NAME", "PRETTY_NAME", "ID"});
  print("ProductVersion:", {"VERSION_ID", "VERSION"});
  print("BuildVersion:", {"BUILD_ID", "IMAGE_VERSION"});
  invocation.output.print("%-16s%s\n", "Kernel:", kernelVersion().c_str());
  return 0;
}

}  // namespace quillsift::tools
