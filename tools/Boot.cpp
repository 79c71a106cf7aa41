// /usr/sbin/bootmark: how this system was booted and what it would boot next.

#include "tools/Boot.h"

#include <optional>

#include "tools/Files.h"
#include "tools/Recipe.h"
#include "tools/Report.h"
#include "tools/SecretMask.h"

namespace quillsift::tools {

namespace {

bool isHexDigit(char character) {
  return (character >= '0' && character <= '9') || (character >= 'A' && character <= 'F');
}

// "Boot0003* name" and its kin ("Driver0000", "SysPrep0001").
bool isEntry(std::string_view line) {
  std::size_t digits = 0;
  for (const std::string_view kind : {"Boot", "Driver", "SysPrep"}) {
    if (line.starts_with(kind)) digits = kind.size();
  }
  if (digits == 0 || line.size() < digits + 5) return false;
  for (std::size_t at = digits; at < digits + 4; ++at) {
    if (!isHexDigit(line[at])) return false;
  }
  return line[digits + 4] == '*' || line[digits + 4] == ' ';
}

// Where the device path at `at` ends: parts of the form "Name(values)", joined by "/" or ",".
std::size_t devicePathEnd(std::string_view line, std::size_t at) {
  while (true) {
    const std::size_t open = line.find_first_of("()/\\ ", at);
    if (open == std::string_view::npos || line[open] != '(') return at;
    int depth = 0;
    std::size_t close = open;
    for (; close < line.size(); ++close) {
      if (line[close] == '(') ++depth;
      if (line[close] == ')' && --depth == 0) break;
    }
    if (close == line.size()) return at;
    at = close + 1;
    if (at == line.size() || (line[at] != '/' && line[at] != ',')) return at;
    ++at;
  }
}

// "a.b." as the list prints 16-bit text; none if it is something else.
std::optional<std::string> textOf16Bit(std::string_view data) {
  std::string text;
  for (std::size_t at = 0; at < data.size(); at += 2) {
    if (at + 1 < data.size() && data[at + 1] != '.') return std::nullopt;
    text += data[at];
  }
  return text;
}

void showBootMode(Invocation& invocation, Report& report, bool isEFI) {
  report.title("kernel command line");
  const auto commandLine = readFile(invocation.host.path("/proc/cmdline"));
  report.line(commandLine ? withSecretsMasked(withoutFinalNewlines(*commandLine))
                          : "no /proc/cmdline");
  report.title("boot mode");
  if (!isEFI) {
    report.line("not an EFI machine");
    return;
  }
  const auto width = readLine(invocation.host.path("/sys/firmware/efi/fw_platform_size"));
  report.line("EFI, " + width.value_or("unknown number of") + " bits");
}

}  // namespace

std::string withEntryDataMasked(std::string_view line) {
  // Newer versions of the list show the bytes of path and data on lines of their own.
  if (trimmed(line).starts_with("data:")) return "      data: (not shown)";
  const std::size_t tab = line.find('\t');
  if (!isEntry(line) || tab == std::string_view::npos) return std::string(line);
  const std::size_t end = devicePathEnd(line, tab + 1);
  const std::string_view data = line.substr(end);
  std::string masked(line.substr(0, end));
  if (data.empty()) return masked;
  if (const auto text = textOf16Bit(data)) return masked + " " + withSecretsMasked(*text);
  return masked + " (" + std::to_string(data.size()) + " bytes of data)";
}

int reportBoot(Invocation& invocation) {
  if (!invocation.hasArguments({"--info", "--getBoot", "--verbose"})) {
    return unknownArguments(invocation);
  }
  Report report(invocation);
  const bool isEFI = isDirectory(invocation.host.path("/sys/firmware/efi"));
  showBootMode(invocation, report, isEFI);
  if (isEFI) {
    report.tool({.program = "efibootmgr", .arguments = {"-v"}, .filter = [](std::string& line) {
                   line = withEntryDataMasked(line);
                   return true;
                 }});
    report.tool(
        {.program = "bootctl", .arguments = {"status", "--no-pager"}, .filter = maskSecrets()});
    report.tool({.program = "mokutil", .arguments = {"--sb-state"}});
  }
  if (exists(invocation.host.path("/boot/grub/grubenv"))) {
    report.tool({.program = "grub-editenv", .arguments = {"list"}, .filter = maskSecrets()});
  }
  report.title("file systems of the boot");
  for (const char* place : {"/", "/boot", "/boot/efi", "/boot/firmware", "/efi"}) {
    if (isDirectory(invocation.host.path(place))) {
      report.toolWithoutTitle(
          {.program = "findmnt",
           .arguments = {"-n", "-o", "TARGET,SOURCE,FSTYPE,OPTIONS", "-M", place},
           .filter = maskSecrets(),
           .silentExitCode = 1});
    }
  }
  return report.finish();
}

}  // namespace quillsift::tools
