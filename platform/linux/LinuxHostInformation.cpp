#include "platform/linux/LinuxHostInformation.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "platform/QSData.h"
#include "platform/linux/FileReading.h"
#include "platform/linux/FirmwareLog.h"
#include "platform/linux/OSRelease.h"
#include "platform/linux/ProcessExecutable.h"
#include "platform/linux/ProvenanceReport.h"

namespace quillsift {

namespace {

constexpr std::string_view kModelControl = "hw.model";
constexpr std::string_view kPreOSLogControl = "kern.preoslog";
constexpr const char* kModelSources[] = {"/proc/sys/hw/model", "/sys/class/dmi/id/product_name",
                                         "/sys/firmware/devicetree/base/model"};

// What the kernel calls the architecture that this program was compiled for; empty: not known, and
// so never taken for a translated one.
#if defined(__x86_64__)
constexpr std::string_view kCompiledArchitecture = "x86_64";
#elif defined(__aarch64__)
constexpr std::string_view kCompiledArchitecture = "aarch64";
#else
constexpr std::string_view kCompiledArchitecture = "";
#endif

// Up to the first NUL, without white space around it.
std::string_view firstText(std::string_view bytes) {
  constexpr std::string_view kSpace = " \t\n\v\f\r";
  bytes = bytes.substr(0, bytes.find('\0'));
  const std::size_t first = bytes.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return "";
  return bytes.substr(first, bytes.find_last_not_of(kSpace) - first + 1);
}

// The text as part of a file name: "-" for "/", blanks and whatever is not printable ASCII.
std::string asFileNamePart(std::string_view text) {
  std::string part(text);
  std::replace_if(
      part.begin(), part.end(), [](char c) { return c <= ' ' || c > '~' || c == '/'; }, '-');
  return part;
}

// /proc/sys/a/b for "a.b"; none for what is no name.
std::optional<std::string> pathOfControl(const std::string& name) {
  std::string path = "." + name;
  if (path.ends_with('.') || path.find("..") != path.npos || path.find('/') != path.npos) {
    return std::nullopt;
  }
  std::replace(path.begin(), path.end(), '.', '/');
  return "/proc/sys" + path;
}

int failed(int error) {
  errno = error;
  return -1;
}

}  // namespace

LinuxHostInformation::LinuxHostInformation(std::shared_ptr<const PlatformTree> tree)
    : tree_(std::move(tree)) {}

std::optional<std::string> LinuxHostInformation::contentOf(const std::string& path) const {
  const auto resolved = tree_->resolve(path);
  if (!resolved) {
    errno = ENOENT;
    return std::nullopt;
  }
  const auto content = readSmallFile(*resolved);
  if (!content) return std::nullopt;
  return std::string(content->text());
}

std::optional<std::string> LinuxHostInformation::hardwareModel() const {
  for (const char* source : kModelSources) {
    const auto content = contentOf(source);
    if (!content) continue;
    const std::string_view model = firstText(*content);
    if (!model.empty()) return asFileNamePart(model) + '\0';
  }
  errno = ENOENT;
  return std::nullopt;
}

std::optional<std::string> LinuxHostInformation::controlValue(const std::string& name) const {
  if (name == kModelControl) return hardwareModel();
  const auto path = pathOfControl(name);
  auto content = path ? contentOf(*path) : std::nullopt;
  if (content) return content;
  const int reason = path ? errno : ENOENT;
  if (name == kPreOSLogControl && reason == ENOENT) content = firmwareLogRing(*tree_);
  errno = reason;
  return content;
}

int LinuxHostInformation::systemControl(const char* name, void* out, std::size_t* outLength,
                                        const void* newValue, std::size_t newLength) {
  const auto value = controlValue(name);
  if (!value) return -1;
  const bool sets = newValue != nullptr && newLength > 0;
  if (sets && name != kPreOSLogControl) return failed(EPERM);
  if (out != nullptr) {
    if (outLength == nullptr) return failed(EFAULT);
    if (*outLength < value->size()) return failed(ENOMEM);
    std::memcpy(out, value->data(), value->size());
  }
  if (outLength != nullptr) *outLength = value->size();
  return 0;
}

std::optional<std::map<std::string, std::string>> LinuxHostInformation::systemVersion() {
  const auto release = readOSRelease(*tree_);
  if (!release) return std::nullopt;
  std::map<std::string, std::string> version;
  for (const char* name : {"BUILD_ID", "IMAGE_VERSION"}) {
    const auto entry = release->find(name);
    if (entry == release->end() || entry->second.empty()) continue;
    version[kBuildVersionKey] = asFileNamePart(entry->second);
    break;
  }
  return version;
}

std::optional<SystemValue> LinuxHostInformation::systemAnswer(const std::string& key) {
  return key == kProvenanceReportKey ? provenanceReport(*tree_) : std::nullopt;
}

bool LinuxHostInformation::carriesInternalContent(const std::string& subsystem) {
  (void)subsystem;
  const auto release = readOSRelease(*tree_);
  if (!release) return false;
  const auto variant = release->find("VARIANT_ID");
  return variant != release->end() && variant->second == "internal";
}

bool LinuxHostInformation::runsTranslated() {
  const auto architecture = contentOf("/proc/sys/kernel/arch");
  if (!architecture || kCompiledArchitecture.empty()) return false;
  const std::string_view running = firstText(*architecture);
  return !running.empty() && running != kCompiledArchitecture;
}

int LinuxHostInformation::realTime(timespec* out) {
  return ::clock_gettime(CLOCK_REALTIME, out);
}

std::string LinuxHostInformation::executablePath(pid_t process, std::size_t limit) {
  return executableOf(process).substr(0, limit);
}

}  // namespace quillsift
