#include "tools/Report.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "tools/ExitCodes.h"

namespace quillsift::tools {

namespace {

std::string commandLine(const ToolRequest& request) {
  std::string line = request.program;
  for (const std::string& argument : request.arguments)
    line += " " + argument;
  return line;
}

void addOnce(std::vector<std::string>& names, std::string_view name) {
  if (std::find(names.begin(), names.end(), name) == names.end()) names.emplace_back(name);
}

}  // namespace

Report::Report(Invocation& invocation)
    : invocation_(invocation),
      tools_(invocation.host, invocation.output),
      before_(invocation.output.size()),
      end_(std::chrono::steady_clock::now() + kBudget) {}

void Report::title(std::string_view title) {
  if (hasShown()) invocation_.output.write("\n");
  invocation_.output.line("== " + std::string(title) + " ==");
}

void Report::line(std::string_view text) {
  invocation_.output.line(text);
}

ToolResult Report::tool(const ToolRequest& request) {
  if (hasProgram(request.program)) title(commandLine(request));
  const std::size_t before = invocation_.output.size();
  const ToolResult result = toolWithoutTitle(request);
  const bool ran = result.end != ToolResult::End::notInstalled;
  if (ran && invocation_.output.size() == before) invocation_.output.line("(no output)");
  return result;
}

ToolResult Report::toolWithoutTitle(const ToolRequest& request) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      end_ - std::chrono::steady_clock::now());
  ToolRequest limited = request;
  limited.limit = std::min(request.limit, left);
  const char* const name = request.program.c_str();
  if (left.count() <= 0) {
    cutShort_ = true;
    invocation_.output.print("(%s not run: the time for this listing is up)\n", name);
    return {ToolResult::End::timedOut};
  }
  bool refused = false;
  limited.filter = [&, filter = request.filter](std::string& line) {
    refused = refused || saysNotPermitted(line);
    return !filter || filter(line);
  };
  const ToolResult result = tools_.run(limited);
  if (refused && !(result.end == ToolResult::End::exited && result.code == 0)) {
    notPermitted(request.program);
  }
  switch (result.end) {
    case ToolResult::End::notInstalled:
      addOnce(missing_, request.program);
      return result;
    case ToolResult::End::notStarted:
      invocation_.output.print("(%s could not be started: %s)\n", name, std::strerror(result.code));
      break;
    case ToolResult::End::exited:
      if (result.code != 0 && result.code != request.silentExitCode) {
        invocation_.output.print("(%s: exit code %d)\n", name, result.code);
      }
      break;
    case ToolResult::End::killed:
      invocation_.output.print("(%s: ended by signal %d)\n", name, result.code);
      break;
    case ToolResult::End::timedOut:
      cutShort_ = true;
      invocation_.output.print("(%s: stopped after %.1f s)\n", name,
                               static_cast<double>(limited.limit.count()) / 1000);
      break;
    case ToolResult::End::tooMuch:
      cutShort_ = true;
      invocation_.output.print("(%s: cut after %zu bytes)\n", name, limited.mostBytes);
      break;
  }
  return result;
}

bool Report::hasProgram(std::string_view name) const {
  return invocation_.host.program(name).has_value();
}

bool Report::hasShown() const {
  return invocation_.output.size() > before_;
}

void Report::notPermitted(std::string_view what) {
  addOnce(notPermitted_, what);
}

int Report::finish() {
  const bool shown = hasShown();
  if (shown && !(missing_.empty() && notPermitted_.empty())) invocation_.output.write("\n");
  closingLine("not installed", missing_);
  closingLine("not permitted to this user", notPermitted_);
  if (cutShort_) return kExitTimeLimit;
  if (notPermitted_.empty()) return shown ? 0 : kExitNotHere;
  return shown && ::geteuid() == 0 ? 0 : kExitNotPermitted;
}

void Report::closingLine(std::string_view beginning, const std::vector<std::string>& names) {
  if (names.empty()) return;
  std::string text(beginning);
  for (const std::string& name : names)
    text += (&name == &names.front() ? ": " : ", ") + name;
  invocation_.output.line(text);
}

}  // namespace quillsift::tools
