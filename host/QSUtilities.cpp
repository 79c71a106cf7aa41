#include "host/QSUtilities.h"

#include <time.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>
#include <variant>

#include "platform/Platform.h"
#include "platform/Text.h"

namespace quillsift {

namespace {

constexpr const char* kFirmwareVariables = "DrDeviceTree:/options";
constexpr const char* kDiagnosticUIVariable = "__QS_DIAGNOSTIC_UI";
constexpr const char* kInternalContentSubsystem = "io.vantor.Quillsift";
constexpr std::size_t kModelSize = 32;  // bytes, terminator included

// Years 1 to 9999, with a day to spare for the time zone.
constexpr double kFirstNameableSecond = -62135596800.0 + 86400;
constexpr double kLastNameableSecond = 253402300799.0 - 86400;

// None if a byte is not ASCII.
std::optional<std::string> asciiText(std::string_view bytes) {
  const bool ascii =
      std::all_of(bytes.begin(), bytes.end(), [](char c) { return (c & 0x80) == 0; });
  if (!ascii) return std::nullopt;
  return std::string(bytes);
}

bool isLetter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// "PDT" where the zone has a name; else its distance from Greenwich: "GMT+3", "GMT-5:30", "GMT".
std::string timeZoneName(const std::tm& local) {
  const std::string_view name = local.tm_zone == nullptr ? "" : local.tm_zone;
  if (!name.empty() && std::all_of(name.begin(), name.end(), isLetter)) return std::string(name);
  const long minutes = std::labs(local.tm_gmtoff) / 60;
  if (minutes == 0) return "GMT";
  const char* sign = local.tm_gmtoff < 0 ? "-" : "+";
  std::string text = formatted("GMT%s%ld", sign, minutes / 60);
  if (minutes % 60 != 0) text += formatted(":%02ld", minutes % 60);
  return text;
}

// None for a date that no calendar of ours reaches.
std::optional<std::string> dateField(QSDate date) {
  const double seconds = std::floor(date.secondsSince1970);
  if (!(seconds >= kFirstNameableSecond && seconds <= kLastNameableSecond)) return std::nullopt;
  const auto time = static_cast<std::time_t>(seconds);
  std::tm local{};
  ::tzset();  // localtime_r alone need not look at TZ
  if (::localtime_r(&time, &local) == nullptr) return std::nullopt;
  std::array<char, 64> text{};
  const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%d_%H-%M-%S-", &local);
  return std::string(text.data(), length) + timeZoneName(local);
}

std::optional<std::string> modelField() {
  std::array<char, kModelSize> model{"Lumina"};
  std::size_t length = model.size();
  // A failure leaves the default.
  (void)Platform::current().hostInformation->systemControl("hw.model", model.data(), &length,
                                                           nullptr, 0);
  std::optional<std::string> text = asciiText({model.data(), ::strnlen(model.data(), kModelSize)});
  if (text) std::replace(text->begin(), text->end(), ',', '-');
  return text;
}

std::string buildField() {
  const auto version = Platform::current().hostInformation->systemVersion();
  if (!version) return "";
  const auto build = version->find(kBuildVersionKey);
  return build == version->end() ? kNullText : build->second;
}

// Whether a text reads as a true boolean: white space, a sign and zeros aside, it starts with Y, T
// or another digit.
bool readsAsTrue(std::string_view text) {
  const auto skip = [&text](std::string_view characters) {
    text.remove_prefix(std::min(text.find_first_not_of(characters), text.size()));
  };
  skip(" \t\n\v\f\r");
  if (!text.empty() && (text.front() == '+' || text.front() == '-')) text.remove_prefix(1);
  skip("0");
  return !text.empty() && std::string_view("YyTt123456789").find(text.front()) != text.npos;
}

}  // namespace

std::optional<std::string> QSUtilities::NVRAMStringForKey(const std::string& key) {
  const auto variables = Platform::current().deviceRegistry->objectAtPath(kFirmwareVariables);
  if (!variables) return std::nullopt;
  std::optional<RegistryValue> value = variables->property(key);
  if (!value) return std::nullopt;
  if (auto* text = std::get_if<std::string>(&*value)) return std::move(*text);
  if (const auto* bytes = std::get_if<QSData>(&*value)) return asciiText(bytes->text());
  return std::nullopt;
}

std::string QSUtilities::ArchiveNameGivenDate(QSDate date, bool insensitiveArchive) {
  return formatted("quillsift_%s_%s_%s%s.tgz", orNull(dateField(date)).c_str(),
                   orNull(modelField()).c_str(), buildField().c_str(),
                   insensitiveArchive ? "_limited" : "");
}

bool QSUtilities::DiagnosticUIEnabled() {
  static const bool enabled = [] {
    const std::optional<std::string> text = NVRAMStringForKey(kDiagnosticUIVariable);
    return text && readsAsTrue(*text);
  }();
  return enabled;
}

bool QSUtilities::isVantorInternal() {
  static const bool internal =
      Platform::current().hostInformation->carriesInternalContent(kInternalContentSubsystem);
  return internal;
}

bool QSUtilities::isVantorSilicon() {
  return Platform::current().hostInformation->runsTranslated();
}

}  // namespace quillsift
