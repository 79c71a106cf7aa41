// /usr/sbin/vaultkit: encrypted volumes and the keys that the kernel holds.

#include "tools/EncryptedVolumes.h"

#include <algorithm>
#include <iterator>

#include "tools/BlockDevices.h"
#include "tools/Files.h"
#include "tools/Recipe.h"
#include "tools/Report.h"

namespace quillsift::tools {

namespace {

// What a header's dump may say of itself. A list of what is kept, not of what is dropped: a new
// version of the tool can add a new kind of bytes, and those must not get through.
constexpr std::string_view kKeptKeys[] = {
    "Version",       "Epoch",         "Metadata area",
    "Keyslots area", "UUID",          "Label",
    "Subsystem",     "Flags",         "Requirements",
    "Data segments", "offset",        "length",
    "cipher",        "sector",        "flags",
    "Keyslots",      "Key",           "Priority",
    "Cipher",        "Cipher key",    "PBKDF",
    "Time cost",     "Memory",        "Threads",
    "Hash",          "Iterations",    "AF stripes",
    "AF hash",       "Area offset",   "Area length",
    "Tokens",        "Keyslot",       "Digests",
    "tpm2-pcrs",     "tpm2-pcr-bank", "tpm2-pin",
    "Cipher name",   "Cipher mode",   "Payload offset",
    "MK bits",       "MK iterations", "Key material offset",
};

bool isNumber(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// "0" in "0: luks2", and "Key Slot 3".
bool isNumberedPart(std::string_view key) {
  constexpr std::string_view kSlot = "Key Slot ";
  return isNumber(key) || (key.starts_with(kSlot) && isNumber(key.substr(kSlot.size())));
}

std::vector<std::string> encryptedDevices(Report& report) {
  std::vector<std::string> devices;
  report.toolWithoutTitle(
      {.program = "blkid",
       .arguments = {"-c", "/dev/null", "-t", "TYPE=crypto_LUKS", "-o", "device"},
       .filter =
           [&](std::string& line) {
             if (line.starts_with("/dev/")) devices.push_back(line);
             return false;
           },
       .silentExitCode = 2});
  return devices;
}

void showKernelKeys(Invocation& invocation, Report& report) {
  const auto keys = readFile(invocation.host.path("/proc/keys"));
  if (!keys || keys->empty()) return;
  report.title("keys held by the kernel");
  for (const std::string_view line : linesOf(*keys)) {
    if (const auto name = nameOfKey(line)) report.line(*name);
  }
}

}  // namespace

LineFilter keepHeaderFacts() {
  return [](std::string& line) {
    const std::string_view text = trimmed(line);
    if (text.empty() || text == "LUKS header information" ||
        text.starts_with("LUKS header information for ")) {
      return true;
    }
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos) return false;
    const std::string_view key = text.substr(0, colon);
    return isNumberedPart(key) ||
           std::find(std::begin(kKeptKeys), std::end(kKeptKeys), key) != std::end(kKeptKeys);
  };
}

std::optional<std::string> nameOfKey(std::string_view line) {
  // serial flags uses expiry permissions uid gid type description
  constexpr int kFieldsBeforeType = 7;
  std::string_view rest = trimmed(line);
  for (int field = 0; field < kFieldsBeforeType; ++field) {
    const std::size_t end = rest.find(' ');
    if (end == std::string_view::npos) return std::nullopt;
    rest = trimmed(rest.substr(end));
  }
  const std::size_t typeEnd = rest.find(' ');
  if (typeEnd == std::string_view::npos) return std::nullopt;
  const std::string_view description = trimmed(rest.substr(typeEnd));
  const std::size_t summary = description.rfind(": ");
  std::string name(rest.substr(0, typeEnd));
  name.resize(std::max<std::size_t>(name.size(), 12), ' ');
  return name + " " + std::string(description.substr(0, summary));
}

int listEncryptedVolumes(Invocation& invocation) {
  if (!invocation.hasArguments({"--list"})) return unknownArguments(invocation);
  Report report(invocation);
  const auto devices = encryptedDevices(report);
  const bool sawAll = sawAllBlockDevices(invocation, report);
  if (devices.empty() && sawAll && report.hasProgram("blkid")) {
    report.line("no encrypted volumes");
  }
  for (const std::string& device : devices) {
    report.tool(
        {.program = "cryptsetup", .arguments = {"luksDump", device}, .filter = keepHeaderFacts()});
    report.tool({.program = "systemd-cryptenroll", .arguments = {device}});
  }
  showKernelKeys(invocation, report);
  return report.finish();
}

}  // namespace quillsift::tools
