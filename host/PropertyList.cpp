#include "host/PropertyList.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <limits>
#include <pugixml.hpp>
#include <span>
#include <system_error>

#include "platform/Text.h"

namespace quillsift {

namespace {

constexpr std::string_view kSpace = " \t\r\n";
constexpr std::string_view kDigits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr const char* kHeader = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";

// --- Scalars as text ---

std::string base64(std::span<const std::byte> bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    const auto group = bytes.subspan(at, std::min<std::size_t>(3, bytes.size() - at));
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < 3; ++i)
      bits = (bits << 8) | (i < group.size() ? std::to_integer<std::uint32_t>(group[i]) : 0);
    for (std::size_t i = 0; i < 4; ++i)
      text += i <= group.size() ? kDigits[(bits >> (18 - 6 * i)) & 0x3F] : '=';
  }
  return text;
}

std::optional<QSData> fromBase64(std::string_view text) {
  std::string digits;
  std::copy_if(text.begin(), text.end(), std::back_inserter(digits),
               [](char c) { return kSpace.find(c) == kSpace.npos; });
  if (digits.size() % 4 != 0) return std::nullopt;
  std::size_t padding = 0;
  while (padding < 2 && digits.ends_with('=')) {
    digits.pop_back();
    ++padding;
  }
  std::vector<std::byte> bytes;
  bytes.reserve(digits.size() * 3 / 4);
  std::uint32_t bits = 0;
  int held = 0;
  for (const char c : digits) {
    const std::size_t digit = kDigits.find(c);
    if (digit == kDigits.npos) return std::nullopt;
    bits = ((bits << 6) | static_cast<std::uint32_t>(digit)) & 0xFFFF;
    held += 6;
    if (held < 8) continue;
    held -= 8;
    bytes.push_back(static_cast<std::byte>(bits >> held));
  }
  return QSData(std::move(bytes));
}

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kSpace);
  if (first == text.npos) return "";
  return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

template <typename Number>
std::optional<Number> numberIn(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::string_view withoutPlus(std::string_view text) {
  return text.size() > 1 && text[0] == '+' && text[1] != '-' ? text.substr(1) : text;
}

std::string realText(double number) {
  if (std::isnan(number)) return "nan";
  if (std::isinf(number)) return number < 0 ? "-infinity" : "+infinity";
  std::array<char, 32> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  return {digits.data(), end};
}

// "2026-11-20T08:30:00Z".
std::optional<std::string> dateText(QSDate date) {
  using std::chrono::days;
  constexpr double kFirstSecond = -62135596800.0;
  constexpr double kLastSecond = 253402300799.0;
  const double seconds = std::floor(date.secondsSince1970);
  if (!(seconds >= kFirstSecond && seconds <= kLastSecond)) return std::nullopt;
  const std::chrono::sys_seconds instant(std::chrono::seconds(static_cast<std::int64_t>(seconds)));
  const auto day = std::chrono::floor<days>(instant);
  const std::chrono::year_month_day calendar(day);
  const std::chrono::hh_mm_ss time(instant - day);
  return formatted("%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(calendar.year()),
                   static_cast<unsigned>(calendar.month()), static_cast<unsigned>(calendar.day()),
                   static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                   static_cast<int>(time.seconds().count()));
}

std::optional<QSDate> dateIn(std::string_view text) {
  constexpr std::string_view kForm = "0000-00-00T00:00:00Z";
  if (text.size() != kForm.size()) return std::nullopt;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (kForm[i] == '0' ? !digit : text[i] != kForm[i]) return std::nullopt;
  }
  const auto field = [text](std::size_t at, std::size_t length) {
    return *numberIn<unsigned>(text.substr(at, length));
  };
  const std::chrono::year_month_day calendar(std::chrono::year(static_cast<int>(field(0, 4))),
                                             std::chrono::month(field(5, 2)),
                                             std::chrono::day(field(8, 2)));
  const unsigned hour = field(11, 2), minute = field(14, 2), second = field(17, 2);
  if (!calendar.ok() || calendar.year() < std::chrono::year(1) || hour > 23 || minute > 59 ||
      second > 59) {
    return std::nullopt;
  }
  const auto midnight = std::chrono::sys_seconds(std::chrono::sys_days(calendar));
  return QSDate{static_cast<double>(midnight.time_since_epoch().count()) + hour * 3600.0 +
                minute * 60.0 + second};
}

// Whether XML can hold the text.
bool isTextForXML(std::string_view text) {
  const bool control = std::any_of(text.begin(), text.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x20 && kSpace.find(c) == kSpace.npos;
  });
  // U+FFFE and U+FFFF are no characters, and their encodings begin like those of some that are.
  const bool noncharacter =
      text.find("\xEF\xBF\xBE") != text.npos || text.find("\xEF\xBF\xBF") != text.npos;
  return !control && !noncharacter && validUTF8(text) == text;
}

// --- Reading ---

using Result = std::optional<PropertyList>;

Result valueOf(const pugi::xml_node& element, int level);

bool isElement(const pugi::xml_node& node) {
  return node.type() == pugi::node_element;
}

// The text in an element that may hold nothing else.
std::optional<std::string> textIn(const pugi::xml_node& element) {
  std::string text;
  for (const pugi::xml_node& part : element) {
    if (isElement(part)) return std::nullopt;
    text += part.value();
  }
  return text;
}

// The elements in an element that may hold nothing else but white space.
std::optional<std::vector<pugi::xml_node>> elementsIn(const pugi::xml_node& element) {
  std::vector<pugi::xml_node> elements;
  for (const pugi::xml_node& part : element) {
    if (isElement(part)) {
      elements.push_back(part);
    } else if (!trimmed(part.value()).empty()) {
      return std::nullopt;
    }
  }
  return elements;
}

Result arrayIn(const pugi::xml_node& element, int level) {
  const auto elements = elementsIn(element);
  if (!elements) return std::nullopt;
  PropertyList::Array array;
  for (const pugi::xml_node& each : *elements) {
    Result value = valueOf(each, level + 1);
    if (!value) return std::nullopt;
    array.push_back(std::move(*value));
  }
  return array;
}

// Of two entries with one key the last counts.
Result dictionaryIn(const pugi::xml_node& element, int level) {
  const auto elements = elementsIn(element);
  if (!elements || elements->size() % 2 != 0) return std::nullopt;
  PropertyList::Dictionary dictionary;
  for (std::size_t i = 0; i < elements->size(); i += 2) {
    const pugi::xml_node& name = (*elements)[i];
    const auto key = std::string_view(name.name()) == "key" ? textIn(name) : std::nullopt;
    Result value = valueOf((*elements)[i + 1], level + 1);
    if (!key || !value) return std::nullopt;
    dictionary.insert_or_assign(*key, std::move(*value));
  }
  return dictionary;
}

template <typename T>
Result asResult(std::optional<T> value) {
  return value ? Result(std::move(*value)) : std::nullopt;
}

Result integerIn(std::string_view text) {
  text = withoutPlus(text);
  if (const auto number = numberIn<std::int64_t>(text)) return *number;
  return asResult(numberIn<std::uint64_t>(text));
}

Result scalarNamed(std::string_view type, const std::string& text) {
  if (type == "string") return text;
  if (type == "integer") return integerIn(trimmed(text));
  if (type == "real") return asResult(numberIn<double>(withoutPlus(trimmed(text))));
  if (type == "date") return asResult(dateIn(trimmed(text)));
  if (type == "data") return asResult(fromBase64(text));
  if ((type == "true" || type == "false") && trimmed(text).empty()) return type == "true";
  return std::nullopt;
}

Result valueOf(const pugi::xml_node& element, int level) {
  if (level > PropertyList::kMostLevels) return std::nullopt;
  const std::string_view type = element.name();
  if (type == "array") return arrayIn(element, level);
  if (type == "dict") return dictionaryIn(element, level);
  const auto text = textIn(element);
  return text ? scalarNamed(type, *text) : std::nullopt;
}

// The one element of the document, if that is what it should be.
std::optional<pugi::xml_node> rootOf(const pugi::xml_document& document) {
  std::optional<pugi::xml_node> root;
  for (const pugi::xml_node& node : document) {
    const bool declares = node.type() == pugi::node_doctype &&
                          std::string_view(node.value()).find('[') != std::string_view::npos;
    if (declares || (isElement(node) && root)) return std::nullopt;
    if (isElement(node)) root = node;
  }
  if (!root || std::string_view(root->name()) != "plist") return std::nullopt;
  return root;
}

// --- Writing ---

// Appends a value; false when it cannot be written.
class Appender {
 public:
  Appender(pugi::xml_node parent, int level) : parent_(parent), level_(level) {}

  bool operator()(const std::string& text) { return append("string", text); }
  bool operator()(std::int64_t number) { return append("integer", std::to_string(number)); }
  bool operator()(std::uint64_t number) { return append("integer", std::to_string(number)); }
  bool operator()(double number) { return append("real", realText(number)); }
  bool operator()(bool truth) { return !parent_.append_child(truth ? "true" : "false").empty(); }
  bool operator()(QSDate date) {
    const auto text = dateText(date);
    return text && append("date", *text);
  }
  bool operator()(const QSData& bytes) { return append("data", base64(bytes.bytes())); }

  bool operator()(const PropertyList::Array& array) {
    const pugi::xml_node element = parent_.append_child("array");
    return std::all_of(array.begin(), array.end(), [&](const PropertyList& each) {
      return appendValue(each, element, level_ + 1);
    });
  }
  bool operator()(const PropertyList::Dictionary& dictionary) {
    pugi::xml_node element = parent_.append_child("dict");
    return std::all_of(dictionary.begin(), dictionary.end(), [&](const auto& entry) {
      return Appender(element, level_).append("key", entry.first) &&
             appendValue(entry.second, element, level_ + 1);
    });
  }

  static bool appendValue(const PropertyList& list, const pugi::xml_node& parent, int level) {
    return level <= PropertyList::kMostLevels && std::visit(Appender(parent, level), list.value());
  }

 private:
  bool append(const char* type, const std::string& text) {
    return isTextForXML(text) && parent_.append_child(type).text().set(text.c_str());
  }

  pugi::xml_node parent_;
  const int level_;
};

struct StringWriter : pugi::xml_writer {
  void write(const void* data, std::size_t size) override {
    text.append(static_cast<const char*>(data), size);
  }
  std::string text;
};

}  // namespace

PropertyList::PropertyList(std::uint64_t number) {
  constexpr auto kMostSigned = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (number <= kMostSigned) {
    value_ = static_cast<std::int64_t>(number);
  } else {
    value_ = number;
  }
}

const PropertyList* PropertyList::find(const std::string& key) const {
  const auto* dictionary = get<Dictionary>();
  if (dictionary == nullptr) return nullptr;
  const auto entry = dictionary->find(key);
  return entry == dictionary->end() ? nullptr : &entry->second;
}

std::optional<PropertyList> PropertyList::fromXML(std::string_view xml) {
  // A NUL would end the document for the parser.
  if (xml.size() > kMostBytes || xml.find('\0') != xml.npos || validUTF8(xml) != xml) {
    return std::nullopt;
  }
  pugi::xml_document document;
  // Entities, but for the five of XML itself, are left as they are.
  constexpr unsigned kOptions = pugi::parse_cdata | pugi::parse_escapes | pugi::parse_eol |
                                pugi::parse_ws_pcdata | pugi::parse_doctype;
  if (!document.load_buffer(xml.data(), xml.size(), kOptions, pugi::encoding_utf8)) {
    return std::nullopt;
  }
  const auto root = rootOf(document);
  const auto elements = root ? elementsIn(*root) : std::nullopt;
  if (!elements || elements->size() != 1) return std::nullopt;
  return valueOf(elements->front(), 1);
}

std::optional<QSData> PropertyList::toXML() const {
  pugi::xml_document document;
  pugi::xml_node root = document.append_child("plist");
  root.append_attribute("version").set_value("1.0");
  if (!Appender::appendValue(*this, root, 1)) return std::nullopt;
  StringWriter writer;
  writer.text = kHeader;
  document.save(writer, "\t", pugi::format_indent | pugi::format_no_declaration,
                pugi::encoding_utf8);
  return QSData(std::move(writer.text));
}

}  // namespace quillsift
