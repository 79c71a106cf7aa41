#include "collect/HostReports.h"

#include <cerrno>
#include <string>
#include <utility>
#include <variant>

#include "codiagnose/QSCorvaneDiagnose.h"
#include "platform/Platform.h"
#include "platform/Text.h"

namespace quillsift {

namespace {

std::string textOf(const SystemValue::UUID& uuid) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (const std::uint8_t byte : uuid) {
    if (text.size() == 8 || text.size() == 13 || text.size() == 18 || text.size() == 23)
      text += '-';
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

struct Converter {
  using Result = std::optional<PropertyList>;

  Result operator()(std::monostate) const { return std::nullopt; }
  Result operator()(const SystemValue::UUID& uuid) const { return textOf(uuid); }
  Result operator()(const SystemValue::Array& array) const {
    PropertyList::Array elements;
    for (const SystemValue& value : array) {
      auto element = propertyListOf(value);
      if (!element) return std::nullopt;
      elements.push_back(std::move(*element));
    }
    return elements;
  }
  Result operator()(const SystemValue::Dictionary& dictionary) const {
    PropertyList::Dictionary entries;
    for (const auto& [key, value] : dictionary) {
      auto entry = propertyListOf(value);
      if (!entry) return std::nullopt;
      entries.emplace(key, std::move(*entry));
    }
    return entries;
  }
  template <typename Scalar>
  Result operator()(const Scalar& scalar) const {
    return PropertyList(scalar);
  }
};

}  // namespace

std::optional<PropertyList> propertyListOf(const SystemValue& value) {
  return std::visit(Converter(), value.value);
}

std::optional<QSData> provenanceReportOfHost(QSError* error) {
  const auto answer = Platform::current().hostInformation->systemAnswer(kProvenanceReportKey);
  if (!answer) return std::nullopt;
  const auto list = propertyListOf(*answer);
  auto xml = list ? list->toXML() : std::nullopt;
  if (!xml) setError(error, QSError::posix(EINVAL));
  return xml;
}

std::optional<QSData> companionPropertiesOfHost(QSError* error) {
  (void)error;  // there is none to tell: without properties there is just nothing to collect
  const auto device = Platform::current().remoteDevices->uniqueDevice(kCompanionDeviceType);
  const auto properties = device ? device->properties() : std::nullopt;
  if (!properties) return std::nullopt;
  PropertyList::Dictionary list;
  for (const auto& [name, value] : *properties) {
    // One that cannot be written must not take the others along.
    auto property = propertyListOf(value);
    if (!property || !PropertyList(PropertyList::Dictionary{{name, *property}}).toXML()) continue;
    list.emplace(name, std::move(*property));
  }
  return PropertyList(std::move(list)).toXML();
}

}  // namespace quillsift
