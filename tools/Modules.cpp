// /usr/sbin/modtally: the kernel's modules.

#include "tools/ExitCodes.h"
#include "tools/Files.h"
#include "tools/Recipe.h"

namespace quillsift::tools {

namespace {

std::vector<std::string_view> fieldsOf(std::string_view line) {
  std::vector<std::string_view> fields;
  while (!(line = trimmed(line)).empty()) {
    const std::size_t end = std::min(line.find_first_of(" \t"), line.size());
    fields.push_back(line.substr(0, end));
    line.remove_prefix(end);
  }
  return fields;
}

std::string versionOf(const Invocation& invocation, std::string_view module) {
  const auto version =
      readLine(invocation.host.path("/sys/module/" + std::string(module) + "/version"));
  return version.value_or("");
}

// Name, size, users, version. The last fields of a line are the state and the address it is loaded
// at; the address is nobody's business.
void listLoaded(Invocation& invocation, std::string_view modules) {
  invocation.output.print("%-28s %10s %6s  %-20s %s\n", "Module", "Size", "Uses", "Version",
                          "Used by");
  for (const std::string_view line : linesOf(modules)) {
    const auto fields = fieldsOf(line);
    if (fields.size() < 4) continue;
    std::string users(fields[3] == "-" ? "" : fields[3]);
    if (users.ends_with(',')) users.pop_back();
    invocation.output.print("%-28s %10s %6s  %-20s %s\n", std::string(fields[0]).c_str(),
                            std::string(fields[1]).c_str(), std::string(fields[2]).c_str(),
                            versionOf(invocation, fields[0]).c_str(), users.c_str());
  }
}

// A kernel that cannot load modules still lists what is built in and has parameters or a version.
void listBuiltIn(Invocation& invocation, const std::vector<std::string>& modules) {
  invocation.output.line("No modules are loaded in this kernel; built in:");
  invocation.output.print("%-28s %10s  %s\n", "Module", "Parameters", "Version");
  for (const std::string& module : modules) {
    const auto parameters = namesIn(invocation.host.path("/sys/module/" + module + "/parameters"));
    invocation.output.print("%-28s %10zu  %s\n", module.c_str(),
                            parameters ? parameters->size() : 0,
                            versionOf(invocation, module).c_str());
  }
}

}  // namespace

int listModules(Invocation& invocation) {
  if (!invocation.arguments.empty()) return unknownArguments(invocation);
  constexpr std::size_t kListLimit = std::size_t{4} * 1024 * 1024;
  if (const auto loaded = readFile(invocation.host.path("/proc/modules"), kListLimit)) {
    listLoaded(invocation, *loaded);
    return 0;
  }
  const auto builtIn = namesIn(invocation.host.path("/sys/module"));
  if (!builtIn) return lineAndExit(invocation, "no list of modules in this kernel", kExitNotHere);
  listBuiltIn(invocation, *builtIn);
  return 0;
}

}  // namespace quillsift::tools
