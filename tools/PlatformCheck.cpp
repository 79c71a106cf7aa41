#include "tools/PlatformCheck.h"

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <optional>

#include "tools/ExitCodes.h"
#include "tools/Files.h"
#include "tools/HostTool.h"

namespace quillsift::tools {

namespace {

struct Finding {
  const char* where;  // "tree", "host", "none" or "daemon"
  std::string remark;
  bool isBroken = false;
};

bool isProgram(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
         ::access(path.c_str(), X_OK) == 0;
}

std::optional<std::string> linkIn(std::string path) {
  while (path.ends_with('/'))
    path.pop_back();
  char target[PATH_MAX];
  const ssize_t length = ::readlink(path.c_str(), target, sizeof target);
  if (length < 0) return std::nullopt;
  return std::string(target, static_cast<std::size_t>(length));
}

// Where the links for a path lead, in the order in which they are tried; empty if there are none.
std::string linkTargets(const Host& host, const std::string& path) {
  if (host.tree().empty()) return "";
  std::string first = host.tree() + path;
  while (first.ends_with('/'))
    first.pop_back();
  std::string text;
  std::string link = first;
  for (unsigned number = 2; const auto target = linkIn(link); ++number) {
    text += (text.empty() ? "" : ", ") + *target;
    link = first + "@" + std::to_string(number);
  }
  return text;
}

std::string missingTools(const PlannedSource& source, const Host& host) {
  const std::string first = source.arguments.empty() ? "" : source.arguments.front();
  std::string text;
  for (const HostNeed& need : hostNeeds()) {
    const bool applies =
        need.planPath == source.path && (need.firstArgument.empty() || need.firstArgument == first);
    if (!applies || host.program(need.program)) continue;
    text += text.empty() ? "missing: " : ", ";
    text += std::string(need.program) + " (" + std::string(need.package) + ")";
  }
  return text;
}

bool isInTree(const std::string& path, const Host& host) {
  return !host.tree().empty() && path.starts_with(host.tree() + "/");
}

Finding programFinding(const PlannedSource& source, const Host& host) {
  const auto found = host.resolved(source.path);
  if (!found) return {"none", "the tree says that this system has none"};
  if (isInTree(*found, host)) {
    if (!isProgram(*found)) return {"none", "what the tree has is no program", true};
    return {"tree", missingTools(source, host)};
  }
  const std::string targets = linkTargets(host, source.path);
  if (!targets.empty()) return {"none", "the tree's link leads nowhere: " + targets, true};
  if (isProgram(*found)) return {"host", "not in the tree: the host's program would run", true};
  return {"none", "not in the tree", true};
}

Finding fileFinding(const PlannedSource& source, const Host& host) {
  const auto found = host.resolved(source.path);
  if (!found) return {"none", "the tree says that this system has none"};
  if (isInTree(*found, host)) return {"tree", linkIn(*found).value_or("")};
  if (exists(*found)) return {"host", source.path};
  const std::string targets = linkTargets(host, source.path);
  return {"none", "no " + (targets.empty() ? source.path : targets)};
}

Finding findingOf(const PlannedSource& source, const Host& host) {
  if (source.kind == "command") return programFinding(source, host);
  if (source.kind == "own") return {"daemon", ""};
  return fileFinding(source, host);
}

}  // namespace

std::optional<PlannedSource> plannedSourceIn(std::string_view line) {
  std::vector<std::string> fields(1);
  for (const char character : line) {
    if (character == '\t') {
      fields.emplace_back();
    } else {
      fields.back() += character;
    }
  }
  // kind, member, sensitivity, machines, path, arguments
  constexpr std::size_t kFieldsBeforeArguments = 5;
  if (fields.size() < kFieldsBeforeArguments) return std::nullopt;
  return PlannedSource{
      fields[0], fields[1], fields[4], {fields.begin() + kFieldsBeforeArguments, fields.end()}};
}

int checkSources(std::span<const PlannedSource> sources, const Host& host, Output& output) {
  int broken = 0;
  for (const PlannedSource& source : sources) {
    const Finding finding = findingOf(source, host);
    std::string line = finding.where;
    line.resize(8, ' ');
    line += source.member;
    if (!source.path.empty()) line += "  " + source.path;
    for (const std::string& argument : source.arguments)
      line += " " + argument;
    if (!finding.remark.empty()) line += "  [" + finding.remark + "]";
    output.line(line);
    broken += finding.isBroken ? 1 : 0;
  }
  if (broken == 0) return 0;
  output.print("%d programs of the plan are not in the tree\n", broken);
  return kExitNotHere;
}

int checkPlatform(const std::string& executable, Output& output) {
  const std::string directory = executable.substr(0, executable.rfind('/'));
  const Host host(platformTreeOf("", "", executable));
  if (host.tree().empty()) {
    output.lineOf(
        {"no tree at ", directory, "/platform, or others than its owner can write to it"});
  }
  std::vector<PlannedSource> sources;
  const Host installation("", {directory + "/.."}, "");
  const ToolResult result = HostTool(installation, output)
                                .run({.program = "quillsiftd",
                                      .arguments = {"--list-plan"},
                                      .filter = [&](std::string& line) {
                                        if (auto source = plannedSourceIn(line)) {
                                          sources.push_back(std::move(*source));
                                        }
                                        return false;
                                      }});
  if (result.end != ToolResult::End::exited || result.code != 0 || sources.empty()) {
    output.lineOf({"no plan from ", directory, "/../quillsiftd"});
    return kExitNotHere;
  }
  return checkSources(sources, host, output);
}

}  // namespace quillsift::tools
