// regtally: the applications and services that are registered on this system, and who opens what.

#include "tools/ExitCodes.h"
#include "tools/Files.h"
#include "tools/Recipe.h"
#include "tools/SecretMask.h"

namespace quillsift::tools {

namespace {

struct Place {
  const char* directory;
  const char* ending;
  const char* group;  // the group of the file whose settings count
};

constexpr Place kPlaces[] = {
    {"/usr/share/applications", ".desktop", "[Desktop Entry]"},
    {"/usr/local/share/applications", ".desktop", "[Desktop Entry]"},
    {"/var/lib/flatpak/exports/share/applications", ".desktop", "[Desktop Entry]"},
    {"/usr/share/dbus-1/system-services", ".service", "[D-BUS Service]"},
    {"/usr/share/dbus-1/services", ".service", "[D-BUS Service]"},
};

constexpr const char* kAssociations[] = {"/etc/xdg/mimeapps.list",
                                         "/usr/local/share/applications/mimeapps.list",
                                         "/usr/share/applications/mimeapps.list"};

bool isShown(std::string_view setting) {
  for (const std::string_view key : {"Name=", "Exec=", "MimeType="}) {
    if (setting.starts_with(key)) return true;
  }
  return false;
}

void show(Output& output, const std::string& path, const Place& place) {
  output.line(path);
  bool inGroup = false;
  const auto text = readFile(path);
  if (!text) return output.line("    (not readable)");
  for (const std::string_view line : linesOf(*text)) {
    if (line.starts_with('[')) inGroup = trimmed(line) == place.group;
    if (inGroup && isShown(line)) output.line("    " + withSecretsMasked(line));
  }
}

// Menus are directories of their own, a few levels deep.
bool showBelow(Output& output, const std::string& directory, const Place& place, int levels) {
  bool found = false;
  for (const std::string& name : namesIn(directory).value_or(Names{})) {
    const std::string path = pathIn(directory, name);
    if (name.ends_with(place.ending)) {
      show(output, path, place);
      found = true;
    } else if (levels > 0 && isDirectory(path)) {
      found |= showBelow(output, path, place, levels - 1);
    }
  }
  return found;
}

}  // namespace

int listApplications(Invocation& invocation) {
  if (!invocation.hasArguments({"-bdump"})) return unknownArguments(invocation);
  bool found = false;
  for (const Place& place : kPlaces) {
    found |= showBelow(invocation.output, invocation.host.path(place.directory), place, 3);
  }
  for (const char* list : kAssociations) {
    const auto text = readFile(invocation.host.path(list));
    if (!text) continue;
    found = true;
    invocation.output.line(list);
    for (const std::string_view line : linesOf(*text)) {
      invocation.output.line("    " + std::string(line));
    }
  }
  return found ? 0 : lineAndExit(invocation, "no application registry", kExitNotHere);
}

}  // namespace quillsift::tools
