// /usr/bin/sealwarden: the security chip's properties and the state of its registers. Nothing that
// is sealed in it, no key and no certificate.

#include <cstdlib>

#include "tools/ExitCodes.h"
#include "tools/Files.h"
#include "tools/Recipe.h"
#include "tools/Report.h"

namespace quillsift::tools {

namespace {

// The variable leads the tools to an emulated chip.
bool hasSecurityChip(const Host& host) {
  return exists(host.path("/dev/tpmrm0")) || exists(host.path("/dev/tpm0")) ||
         std::getenv("TPM2TOOLS_TCTI") != nullptr;
}

}  // namespace

int reportSecurityChip(Invocation& invocation) {
  if (!invocation.hasArguments({"-e"})) return unknownArguments(invocation);
  if (!hasSecurityChip(invocation.host)) {
    return lineAndExit(invocation, "no TPM on this machine", kExitNotHere);
  }
  Report report(invocation);
  const auto version = readLine(invocation.host.path("/sys/class/tpm/tpm0/tpm_version_major"));
  if (version) report.line("TPM, version " + *version);
  report.tool({.program = "tpm2_getcap", .arguments = {"properties-fixed"}});
  report.tool({.program = "tpm2_getcap", .arguments = {"properties-variable"}});
  report.tool({.program = "tpm2_pcrread"});
  return report.finish();
}

}  // namespace quillsift::tools
