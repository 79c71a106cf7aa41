// /usr/sbin/nvram: the variables that the firmware keeps.

#include <unistd.h>

#include <cerrno>

#include "tools/ExitCodes.h"
#include "tools/Files.h"
#include "tools/FirmwareVariables.h"
#include "tools/HostListing.h"
#include "tools/HostTool.h"
#include "tools/PropertyListWriter.h"
#include "tools/Recipe.h"

namespace quillsift::tools {

namespace {

constexpr std::string_view kNoStore = "this machine has no firmware variable store";

struct Variable {
  std::string name;  // "GUID:name", or the bare name for those of our own
  std::string value;
  bool isText;  // of a store that holds nothing else
};

struct Variables {
  std::vector<Variable> all;
  int unreadable = 0;
};

Variables named(const std::vector<FirmwareVariable>& variables) {
  Variables result;
  for (const FirmwareVariable& variable : variables) {
    const bool isOwn = variable.vendor == kOwnFirmwareVendor;
    result.all.push_back({isOwn ? variable.name : variable.vendor + ":" + variable.name,
                          variable.value, /*isText=*/false});
  }
  return result;
}

// The environment of U-Boot, on machines that have it. It tells none where there is none.
std::optional<Variables> environmentOfBootLoader(Invocation& invocation) {
  Variables result;
  const ToolResult end = HostTool(invocation.host, invocation.output)
                             .run({.program = "fw_printenv",
                                   .filter =
                                       [&](std::string& line) {
                                         const std::size_t equals = line.find('=');
                                         if (equals != std::string::npos) {
                                           result.all.push_back({line.substr(0, equals),
                                                                 line.substr(equals + 1), true});
                                         }
                                         return false;
                                       },
                                   .discardStandardError = true});
  const bool hasRead = end.end == ToolResult::End::exited && end.code == 0;
  if (!hasRead || result.all.empty()) return std::nullopt;
  return result;
}

void printAsPropertyList(const Variables& variables, Output& output) {
  PropertyListWriter list(output);
  list.beginDictionary();
  for (const Variable& variable : variables.all) {
    list.key(variable.name);
    if (variable.isText) {
      list.text(variable.value);
    } else {
      list.data(variable.value);
    }
  }
  list.endDictionary();
  list.finish();
}

void printAsLines(const Variables& variables, Output& output) {
  for (const Variable& variable : variables.all)
    output.lineOf({percentEscaped(variable.name), "\t", percentEscaped(variable.value)});
}

}  // namespace

int listFirmwareVariables(Invocation& invocation) {
  const bool asPropertyList = invocation.hasArguments({"-x", "-p"});
  if (!asPropertyList && !invocation.hasArguments({"-p"})) return unknownArguments(invocation);
  int unreadable = 0;
  const auto inStore = firmwareVariables(invocation.host, &unreadable);
  const bool refused = !inStore && (errno == EACCES || errno == EPERM);
  if (refused) return listedInPart(invocation, "the firmware's variables");
  // A directory with nothing in it is where a store would be mounted.
  const bool isStore = inStore && !(inStore->empty() && unreadable == 0);
  const std::optional<Variables> variables =
      isStore ? named(*inStore) : environmentOfBootLoader(invocation);
  if (!variables) return lineAndExit(invocation, kNoStore, kExitNotHere);
  if (asPropertyList) {
    printAsPropertyList(*variables, invocation.output);
    // Nothing may follow the root.
    return unreadable > 0 && ::geteuid() != 0 ? kExitNotPermitted : 0;
  }
  printAsLines(*variables, invocation.output);
  if (unreadable == 0) return 0;
  return listedInPart(invocation, std::to_string(unreadable) + " variables");
}

}  // namespace quillsift::tools
