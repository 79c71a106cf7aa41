// /usr/bin/guardctl: what protects this system from programs that mean harm.

#include "tools/Files.h"
#include "tools/Recipe.h"
#include "tools/Report.h"

namespace quillsift::tools {

namespace {

void showSecurityModules(Invocation& invocation, Report& report) {
  report.title("security modules");
  const std::string directory = invocation.host.path("/sys/kernel/security");
  bool found = false;
  for (const char* name : {"lsm", "lockdown"}) {
    if (const auto value = readLine(pathIn(directory, name))) {
      report.line(std::string(name) + ": " + *value);
      found = true;
    }
  }
  if (!found) report.line("securityfs not mounted");
}

void showProcessorWeaknesses(Invocation& invocation, Report& report) {
  const std::string directory = invocation.host.path("/sys/devices/system/cpu/vulnerabilities");
  const auto names = namesIn(directory);
  if (!names) return;
  report.title("processor vulnerabilities");
  for (const std::string& name : *names) {
    const auto state = readLine(pathIn(directory, name));
    report.line(name + ": " + state.value_or("(not readable)"));
  }
}

void showKernelSettings(Invocation& invocation, Report& report) {
  report.title("kernel settings");
  for (const char* name : {"kptr_restrict", "dmesg_restrict", "modules_disabled", "tainted",
                           "randomize_va_space", "perf_event_paranoid", "unprivileged_bpf_disabled",
                           "kexec_load_disabled", "yama/ptrace_scope"}) {
    std::string label = std::string("kernel.") + name;
    for (char& character : label) {
      if (character == '/') character = '.';
    }
    const auto value = readLine(invocation.host.path(std::string("/proc/sys/kernel/") + name));
    if (value) report.line(label + " = " + *value);
  }
}

}  // namespace

int reportGuards(Invocation& invocation) {
  if (!invocation.hasArguments({"status"})) return unknownArguments(invocation);
  Report report(invocation);
  showSecurityModules(invocation, report);
  showProcessorWeaknesses(invocation, report);
  showKernelSettings(invocation, report);
  report.tool({.program = "aa-status"});
  report.tool({.program = "sestatus"});
  if (isDirectory(invocation.host.path("/sys/firmware/efi"))) {
    report.tool({.program = "mokutil", .arguments = {"--sb-state"}});
  } else {
    report.title("secure boot");
    report.line("not an EFI machine");
  }
  report.tool({.program = "auditctl", .arguments = {"-s"}});
  return report.finish();
}

}  // namespace quillsift::tools
