#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "tools/HostTool.h"
#include "tools/Recipe.h"

namespace quillsift::tools {

// A listing in sections, each under a title line: what this system's own files say, and what its
// tools print. It keeps count of what it could not show and ends with one line a reason.
class Report {
 public:
  // All tools of a report together. The collector waits 180 s for its slowest programs.
  static constexpr std::chrono::milliseconds kBudget = std::chrono::seconds(120);

  explicit Report(Invocation& invocation);

  // "== title ==", after an empty line unless it is the first.
  void title(std::string_view title);
  void line(std::string_view text);

  // A section with a host tool's output, titled with its command line. A tool that is not installed
  // is only noted. An exit code other than zero is a line below the output, as is the limit that
  // ended it; neither ends the report. A tool that fails and says that it was refused something
  // counts as notPermitted.
  ToolResult tool(const ToolRequest& request);
  // The same without a title, for a tool that belongs to the section that stands open.
  ToolResult toolWithoutTitle(const ToolRequest& request);

  bool hasProgram(std::string_view name) const;
  // Something this user may not see: "the kernel log of the firmware". Named at the end.
  void notPermitted(std::string_view what);

  // Prints the closing lines. The exit code: 75 when a limit cut it short; else 77 when this user
  // was not permitted to see part of it; else 0 when there was anything to show, and 69 when not.
  // To root, what is not permitted is not there for anybody: that is a line, and 77 only when there
  // is nothing else.
  int finish();

 private:
  bool hasShown() const;
  void closingLine(std::string_view beginning, const std::vector<std::string>& names);

  Invocation& invocation_;
  HostTool tools_;
  const std::size_t before_;  // what had been printed when this report began
  const std::chrono::steady_clock::time_point end_;
  bool cutShort_ = false;
  std::vector<std::string> missing_;
  std::vector<std::string> notPermitted_;
};

}  // namespace quillsift::tools
