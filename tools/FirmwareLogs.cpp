// /usr/libexec/fwlogdump: what the firmware wrote down before and beside the system.

#include <cerrno>

#include "tools/ExitCodes.h"
#include "tools/Files.h"
#include "tools/Recipe.h"
#include "tools/Report.h"

namespace quillsift::tools {

namespace {

constexpr std::size_t kLogLimit = std::size_t{16} * 1024 * 1024;  // far above what firmware keeps

void showLog(Invocation& invocation, Report& report, const char* path) {
  const auto text = readFile(invocation.host.path(path), kLogLimit);
  if (!text) {
    if (errno == EACCES || errno == EPERM) report.notPermitted(path);
    return;
  }
  report.title(path);
  // Firmware pads its buffers with zeros.
  std::string_view log = *text;
  while (log.starts_with('\0'))
    log.remove_prefix(1);
  while (log.ends_with('\0'))
    log.remove_suffix(1);
  report.line(withoutFinalNewlines(log));
}

// A directory tree of small text files, as the kernel offers the firmware's tables.
void showTable(const std::string& directory, const std::string& label, Report& report) {
  for (const std::string& name : namesIn(directory).value_or(Names{})) {
    const std::string path = pathIn(directory, name);
    const std::string entry = label.empty() ? name : pathIn(label, name);
    if (isDirectory(path)) {
      showTable(path, entry, report);
    } else if (const auto value = readLine(path)) {
      report.line(entry + " = " + *value);
    } else if (errno == EACCES || errno == EPERM) {
      report.notPermitted(path);
    }
  }
}

void showTableOf(Invocation& invocation, Report& report, const char* directory) {
  if (!isDirectory(invocation.host.path(directory))) return;
  report.title(directory);
  showTable(invocation.host.path(directory), "", report);
}

bool hasManagementController(const Host& host) {
  for (const char* node : {"/dev/ipmi0", "/dev/ipmi/0", "/dev/ipmidev/0"}) {
    if (exists(host.path(node))) return true;
  }
  return false;
}

}  // namespace

int dumpFirmwareLogs(Invocation& invocation) {
  if (!invocation.arguments.empty()) return unknownArguments(invocation);
  Report report(invocation);
  for (const char* log :
       {"/sys/firmware/log", "/sys/firmware/efi/ovmf_debug_log", "/sys/firmware/opal/msglog"}) {
    showLog(invocation, report, log);
  }
  // Without these tables the tool would search the machine's memory for them.
  if (exists(invocation.host.path("/sys/firmware/dmi/tables/DMI"))) {
    report.tool({.program = "dmidecode", .arguments = {"-t", "15"}});
  }
  const std::string measurements =
      invocation.host.path("/sys/kernel/security/tpm0/binary_bios_measurements");
  if (exists(measurements)) {
    report.tool({.program = "tpm2_eventlog", .arguments = {measurements}});
  }
  showTableOf(invocation, report, "/sys/firmware/efi/esrt");
  showTableOf(invocation, report, "/sys/firmware/acpi/fpdt");
  if (hasManagementController(invocation.host)) {
    report.tool({.program = "ipmitool", .arguments = {"sel", "elist"}});
  }
  const int exitCode = report.finish();
  if (exitCode == kExitNotHere) {
    return lineAndExit(invocation, "this machine offers no firmware log", kExitNotHere);
  }
  return exitCode;
}

}  // namespace quillsift::tools
