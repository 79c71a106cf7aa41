// The property lists of volumes and the URLs in them. Input: the list, which also stands for a URL.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "host/PropertyList.h"
#include "host/URLParts.h"

namespace {

using quillsift::PropertyList;

void require(bool condition) {
  if (!condition) std::abort();
}

void checkURL(std::string_view url) {
  const auto parts = quillsift::splitURL(url);
  if (!parts) return;
  require(!parts->path.ends_with('/') && parts->path.find('\0') == std::string::npos);
  require(url.find(parts->host) != std::string_view::npos);
  require(parts->host.size() + parts->path.size() <= url.size());
}

void checkTexts(const PropertyList& list) {
  if (const auto* const text = list.get<std::string>()) checkURL(*text);
  if (const auto* const array = list.get<PropertyList::Array>()) {
    for (const PropertyList& element : *array)
      checkTexts(element);
  }
  if (const auto* const dictionary = list.get<PropertyList::Dictionary>()) {
    for (const auto& [key, value] : *dictionary) {
      require(list.find(key) == &value);
      checkTexts(value);
    }
  }
}

// What was written can be read, and is then written the same.
void checkWriting(const PropertyList& list) {
  const auto written = list.toXML();
  if (!written || written->length() > PropertyList::kMostBytes) return;
  const auto read = PropertyList::fromXML(written->text());
  require(read.has_value());
  const auto again = read->toXML();
  require(again.has_value());
  // But for carriage returns, which are line ends from the first reading on.
  if (written->text().find('\r') == std::string_view::npos) {
    require(again->text() == written->text());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  checkURL(input);
  const auto list = PropertyList::fromXML(input);
  if (!list) return 0;
  checkTexts(*list);
  checkWriting(*list);
  return 0;
}
